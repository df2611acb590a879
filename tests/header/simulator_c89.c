/* The simulator's header is for C hosts too. */
#include "Pulsekit3Simulator.h"

int32_t first_radar(void);

int32_t first_radar(void) { return QTXSim_AddRadar("FT0001AB", "Radar", QTXSIM_FT232H, "QTX-K245", "QTX3701"); }
