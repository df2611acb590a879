"""The reference of all variables and actions, as Markdown."""
from description import ACTION, COMPUTED, LIVE, MIRROR, READOUT, SETTING

KIND_TEXTS = {SETTING: '', READOUT: 'register readout', COMPUTED: 'computed', MIRROR: 'automatic value of another',
              LIVE: 'live read', ACTION: 'action'}
TYPE_TEXTS = {'int': 'integer', 'float': 'float', 'enum': 'enumeration'}


def markdown(descriptions):
    parts = ['# Variables and actions\n\nGenerated from the descriptions of the chips, modules and bridges. '
             'A setting without a value of its own has its automatic value, which changes with the variables that it '
             'follows.\n']
    for description in descriptions:
        parts.append(f'\n## {description.model}\n\n' + (f'{description.note}\n\n' if description.note else '') +
                     _head('Variable', 'Level', 'Kind', 'Unit', 'Range or items', 'Automatic value', 'Follows',
                           'Followed by', 'Register', 'Meaning'))
        parts += [_row([v.name, v.entry['level'], _kind(v), v.entry.get('unit', ''), _range(v), _auto(v),
                        ', '.join(v.sources), ', '.join(d.name for d in v.dependents), _register(v), v.entry['help']])
                  for v in description.variables]
        parts.append('\n' + _head('Action', 'Level', 'Number on the chip', 'Meaning'))
        parts += [_row([a.name, a.entry['level'], str(a.entry.get('strobe', '')), a.entry['help']])
                  for a in description.actions]
    return ''.join(parts)


def _head(*titles):
    return _row(titles) + '|' + '---|' * len(titles) + '\n'


def _row(cells):
    return '| ' + ' | '.join(cell.replace('|', '\\|') for cell in cells) + ' |\n'


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
