// Names of a chip driver's functions. A driver's sources are compiled once for each model that they serve, with
// CHIP_MODEL set to the model's name.
#pragma once

#define CHIP_PASTE(model, name) model##_##name
#define CHIP_EXPAND(model, name) CHIP_PASTE(model, name)
#define CHIP_QUOTE(model) #model
#define CHIP_QUOTE_EXPANDED(model) CHIP_QUOTE(model)

// The model's function of that name, the model's name as a text, and the function of its generated description.
#define CHIP(name) CHIP_EXPAND(CHIP_MODEL, name)
#define CHIP_NAME CHIP_QUOTE_EXPANDED(CHIP_MODEL)
#define CHIP_VARS(name) CHIP_EXPAND(CHIP_EXPAND(vars, CHIP_MODEL), name)
