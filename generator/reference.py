"""The reference of all variables and actions, as Markdown."""
from description import ACTION, COMPUTED, LIVE, MIRROR, READOUT, SETTING

KIND_TEXTS = {SETTING: '', READOUT: 'register readout', COMPUTED: 'computed', MIRROR: 'automatic value of another',
              LIVE: 'live read', ACTION: 'action'}
TYPE_TEXTS = {'int': 'integer', 'float': 'float', 'enum': 'enumeration'}


def markdown(descriptions):
    parts = ['# Variables and actions\n\nGenerated from the descriptions of the chips, modules and bridges. '
             'A setting without a value of its own follows its automatic value.\n']
    for description in descriptions:
        parts.append(f'\n## {description.model}\n\n'
                     '| Variable | Kind | Range or items | Automatic value | Register | Unit | Meaning |\n'
                     '|---|---|---|---|---|---|---|\n')
        parts += [_row([v.name, _kind(v), _range(v), _auto(v), _register(v), _text(v, 'unit'), _text(v, 'help')])
                  for v in description.variables]
        parts.append('\n| Action | Number on the chip | Meaning |\n|---|---|---|\n')
        parts += [_row([a.name, str(a.entry.get('strobe', '')), _action_text(a)]) for a in description.actions]
    return ''.join(parts)


def _row(cells):
    return '| ' + ' | '.join(cell.replace('|', '\\|') for cell in cells) + ' |\n'


def _text(entry, key):
    return entry.entry.get(key, '')


def _kind(variable):
    return ', '.join(filter(None, [TYPE_TEXTS[variable.type], KIND_TEXTS[variable.kind]]))


def _range(variable):
    if variable.items:
        return ', '.join(f'"{item}"' for item in variable.items)
    return f'{variable.range[0]:g} to {variable.range[1]:g}' if variable.type == 'float' else \
        f'{variable.range[0]} to {variable.range[1]}'


def _auto(variable):
    auto = variable.entry.get('auto', '')
    return f'`{auto}`' if isinstance(auto, str) and auto and auto not in variable.items else str(auto)


def _register(variable):
    if not variable.register:
        return ''
    return f'0x{variable.register.address:02x} [{variable.high}:{variable.low}]'


def _action_text(action):
    return 'Not implemented for this chip.' if 'unsupported' in action.entry else _text(action, 'help')
