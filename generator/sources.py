"""Writes a description as C++."""
import json

from description import KEYS, LIVE, READOUT, SETTING
from formula import as_float, as_integer, commented, float_literal, integer_literal

NOTE = '// Generated from the description of {model}: change that, not this.\n'


def write(description, directory):
    """Writes the header and the three sources into the directory; files that are up to date are left alone."""
    model = description.model
    contents = {
        f'{model}-autogen.h': header(description),
        f'{model}-symbols-autogen.cpp': symbols(description),
        f'{model}-vars-autogen.cpp': variables(description),
        f'{model}-registers-autogen.cpp': registers(description),
    }
    directory.mkdir(parents=True, exist_ok=True)
    for name, text in contents.items():
        (directory / name).write_text(NOTE.format(model=model) + text, encoding='utf-8')


def text_literal(text):
    return json.dumps(text)


def setter(description, register):
    return f'spi_{description.model}_setreg_0x{register.address:x}_{register.address}'


def getter(description, register):
    return f'spi_{description.model}_getreg_0x{register.address:x}_{register.address}'


def callback(description, entry):
    return f'var_func_{description.model}_{entry.name}'


def header(description):
    model = description.model
    parts = [f'''#pragma once

#include <cstdint>

#include "support/described.h"

enum : int32_t {{ k{model}_MaxSymbol = {len(description.symbols) - 1} }};
extern const char *const symbols_{model}[k{model}_MaxSymbol + 1];

int32_t vars_{model}_InitHandle(VariableSet **out, QTX_StackTrace **error_state);
void vars_{model}_FreeHandle(VariableSet **set);
void vars_{model}_sample_all_livereads(VariableSet *set);

''']
    for register in description.registers:
        if register.writable:
            parts.append(f'int32_t {setter(description, register)}(VariableSet *set);\n')
        parts.append(f'uint64_t {getter(description, register)}(VariableSet *set);\n')
    return ''.join(parts)


def symbols(description):
    model = description.model
    texts = ''.join(f'    {text_literal(text)},\n' for text in description.symbols)
    return f'''#include "{model}-autogen.h"

const char *const symbols_{model}[k{model}_MaxSymbol + 1] = {{
{texts}}};
'''


def preamble(description, unit):
    model = description.model
    return f'''#include "{model}-autogen.h"
#include "{description.header}"

using namespace pulsekit;

static constexpr const char kSource[] = "{description.source}-{unit}-autogen";

'''


def indices(description):
    """The variables' positions in the set."""
    names = ''.join(f'  kVar_{variable.name},\n' for variable in description.variables)
    return f'''namespace {{

enum Index : int32_t {{
{names}}};

}}  // namespace

'''


# ---- Registers ----


def registers(description):
    if not description.registers:
        return f'#include "{description.model}-autogen.h"\n'
    prefix = description.prefix
    parts = [preamble(description, 'registers'), indices(description),
             f'static constexpr RegisterBus kBus = {{{prefix}ReadRegister, {prefix}WriteRegister}};\n']
    for register in description.registers:
        if register.writable:
            parts.append(register_write(description, register))
        parts.append(f'''
uint64_t {getter(description, register)}(VariableSet *set) {{
  return readWhole(kBus, set, HERE, 0x{register.address:x}, {register.bytes});
}}
''')
    return ''.join(parts)


def register_write(description, register):
    fields = sorted(register.fields, key=lambda variable: -variable.low)
    terms = ' |\n      '.join(
        f'registerField(set, kVar_{v.name}, 0x{2**v.width - 1:x}, {v.low})' for v in fields)
    return f'''
int32_t {setter(description, register)}(VariableSet *set) {{
  const uint64_t value =
      {terms};
  return writeVerified(kBus, set, HERE, 0x{register.address:x}, {register.bytes}, value);
}}
'''


# ---- Variables and actions ----


def variables(description):
    model = description.model
    parts = [preamble(description, 'vars'), indices(description), '''namespace {

[[maybe_unused]] QTX_Handle *ownerOf(VariableSet *set) { return static_cast<QTX_Handle *>(set->owner); }

}  // namespace
''']
    parts += [variable_callback(description, variable) for variable in description.variables]
    parts += [action_callback(description, action) for action in description.actions]
    parts += [variable_template(description), action_template(description), order(description), f'''
static constexpr Description kDescription = {{
    "{model}", {len(description.variables)}, kVariables, kOrder, {len(description.actions)}, kActions,
    k{model}_MaxSymbol, symbols_{model},
}};

int32_t vars_{model}_InitHandle(VariableSet **out, QTX_StackTrace **error_state) {{
  const int32_t code = createVariableSet(kDescription, out, error_state);
  return code ? origin(error_state ? *error_state : nullptr, HERE, code) : kSuccess;
}}

void vars_{model}_FreeHandle(VariableSet **set) {{ freeVariableSet(set); }}

void vars_{model}_sample_all_livereads(VariableSet *) {{}}
''']
    return ''.join(parts)


def function(description, entry, cases):
    """A callback with an answer to each command of `cases`; 0 to the others."""
    if cases:
        body = 'switch (command) {\n' + ''.join(
            f'    case {command}: {{\n{text}    }}\n' for command, text in cases
        ) + '    default:\n      return int_to_value(0, result);\n  }'
    else:
        body = 'return int_to_value(0, result);'
    return f'''
static uint64_t *{callback(description, entry)}([[maybe_unused]] uint32_t command, [[maybe_unused]] VariableSet *set,
                                        [[maybe_unused]] void *record, uint64_t *result) {{
  {body}
}}
'''


def answer(value):
    return f'      return int_to_value({value}, result);\n'


def attempt(call):
    """A step that ends the callback with its code when it fails."""
    return (f'      if (int32_t code = {call}) {{\n'
            f'        return int_to_value(passThrough(set->error_state, HERE, code), result);\n      }}\n')


def run(expression):
    return attempt(expression.code) if expression.type == 'code' else f'      {expression.code};\n'


def variable_callback(description, variable):
    candidates = [
        ('VAR_CMD_AUTO_VALUE', auto_value(description, variable)),
        ('VAR_CMD_WRITE_BACKEND', write_backend(description, variable)),
        ('VAR_CMD_NOTIFY_DEPENDERS', notify_dependents(variable)),
        ('VAR_CMD_LIVE_READ', live_read(variable)),
        ('VAR_CMD_READ_VALUE', read_value(description, variable)),
        ('VAR_CMD_INIT_PROPERTIES', init_properties(variable)),
    ]
    return function(description, variable, [(command, text) for command, text in candidates if text])


def auto_value(description, variable):
    auto = variable.auto
    if 'auto' not in KEYS[variable.kind] or auto == 0:
        return ''
    if isinstance(auto, str):
        return answer(commented(description.symbol(auto), auto))
    if isinstance(auto, (int, float)):
        if variable.type == 'float':
            return f'      return float_to_value({float_literal(auto)}, result);\n'
        return answer(integer_literal(auto))
    if variable.type == 'float':
        return f'      return float_to_value({as_float(auto.expression)}, result);\n'
    if variable.type == 'enum':
        return answer(auto.expression.code)
    return answer(as_integer(auto.expression))


def write_backend(description, variable):
    if variable.kind != SETTING:
        return ''
    steps = ''
    if variable.register:
        steps += attempt(f'{setter(description, variable.register)}(set)')
    if variable.write:
        steps += run(variable.write.expression)
    if 'then' in variable.entry:
        action = next(i for i, a in enumerate(description.actions) if a.name == variable.entry['then'])
        steps += attempt(f'varActionTrigger(set, &set->actions[{action}] /* {variable.entry["then"]} */)')
    return steps + answer(0) if steps else ''


def notify_dependents(variable):
    steps = ''.join(attempt(f'varNotifyDependerAutovalue(set, &set->variables[kVar_{dependent.name}])')
                    for dependent in variable.dependents)
    return steps + answer(0) if steps else ''


def live_read(variable):
    if variable.kind != LIVE:
        return ''
    if variable.type == 'float':
        return f'      return float_to_value({as_float(variable.read.expression)}, result);\n'
    return answer(as_integer(variable.read.expression))


def read_value(description, variable):
    if not variable.register:
        return ''
    whole = f'{getter(description, variable.register)}(set)'
    if variable.kind == READOUT and len(variable.register.fields) > 1:
        mask = 2**variable.width - 1
        return answer(f'static_cast<int64_t>(({whole} >> {variable.low}) & 0x{mask:x})')
    return answer(f'static_cast<int64_t>({whole})')


def init_properties(variable):
    if variable.type == 'enum':
        return ''
    wrap, literal = (('float_to_value', float_literal) if variable.type == 'float' else
                     ('int_to_value', integer_literal))
    low, high = (literal(limit) for limit in variable.range)
    return (f'      auto *variable = static_cast<Variable *>(record);\n'
            f'      {wrap}({low}, &variable->min);\n'
            f'      {wrap}({high}, &variable->max);\n') + answer(0)


def action_callback(description, action):
    entry = action.entry
    if 'strobe' in entry:
        steps = attempt(f'{description.prefix}ExecuteAction(ownerOf(set), {entry["strobe"]})') + answer(0)
    elif 'unsupported' in entry:
        message = text_literal(f'{action.name} is not implemented for this chip')
        steps = answer(f'origin(set->error_state, HERE, kNotImplemented, {message})')
    elif action.call:
        steps = run(action.call.expression) + answer(0)
    else:
        steps = ''
    return function(description, action, [('VAR_CMD_TRIGGER', steps)] if steps else [])


def variable_template(description):
    lists = ''.join(
        f'static constexpr uint32_t kItems_{v.name}[] = {{{", ".join(str(description.symbol(i)) for i in v.items)}, 0}};\n'
        for v in description.variables if v.items)
    rows = ''
    for v in description.variables:
        items = f'kItems_{v.name}' if v.items else 'kNoItems'
        rows += (f'    {{{description.symbol(v.name)}, 0, 0, 0, {items}, {" | ".join(v.flags)}, 1, '
                 f'{callback(description, v)}, "", 0}},\n')
    return f'''
[[maybe_unused]] static constexpr uint32_t kNoItems[] = {{0}};
{lists}
static constexpr Variable kVariables[] = {{
{rows}}};
'''


def action_template(description):
    rows = ''.join(f'    {{{description.symbol(a.name)}, 0, {callback(description, a)}, ""}},\n'
                   for a in description.actions)
    return f'''
static constexpr VarAction kActions[] = {{
{rows}}};
'''


def order(description):
    position = {variable.name: index for index, variable in enumerate(description.variables)}
    rows = ''.join(f'    {{{position[v.name]}, {v.level}}},  // {v.name}\n' for v in description.order)
    return f'''
static constexpr VarOrder kOrder[] = {{
{rows}}};
'''
