"""Reads a description, checks it and works out what follows from it: symbols, evaluation order, dependents, fields."""
import itertools
import math
import re
import sys
import tomllib
from dataclasses import dataclass, field
from pathlib import Path

import formula

SETTING, READOUT, COMPUTED, MIRROR, LIVE, ACTION = 'setting', 'readout', 'computed', 'mirror', 'live', 'action'
TYPES = {'int': 'VAR_FLAG_INT', 'float': 'VAR_FLAG_FLOAT', 'enum': 'VAR_FLAG_ENUM'}
READ_ONLY = 'VAR_FLAG_READ_ONLY'
KINDS = {
    SETTING: [],
    READOUT: [READ_ONLY, 'VAR_FLAG_FROM_BACKEND'],
    COMPUTED: [READ_ONLY],
    MIRROR: [READ_ONLY, 'VAR_FLAG_AUTO_VALUE_MIRROR'],
    LIVE: [READ_ONLY, 'VAR_FLAG_LIVE_READ'],
}
ALWAYS = {'name', 'kind', 'unit', 'help', 'level', 'only'}
TEXTS = ('name', 'kind', 'type', 'unit', 'help', 'level', 'only', 'write', 'read', 'call', 'then')
LEVELS = ('basic', 'expert')
KEYS = {
    SETTING: {'type', 'range', 'items', 'auto', 'register', 'bits', 'write', 'then'},
    READOUT: {'type', 'range', 'register', 'bits'},
    COMPUTED: {'type', 'range', 'items', 'auto'},
    MIRROR: {'type', 'range', 'items', 'auto'},
    LIVE: {'type', 'range', 'read'},
    ACTION: {'strobe', 'call', 'unsupported', 'nothing'},
}
WAYS_TO_ACT = ('strobe', 'call', 'unsupported', 'nothing')
TOP_LEVEL = {'models', 'source', 'header', 'prefix', 'functions', 'registers', 'table', 'note'}
INVALID_SYMBOL = '(invalid symbol)'
DEEPEST = 100  # levels of variables that read each other


class DescriptionError(Exception):
    def __init__(self, path, line, message):
        super().__init__(f'{path}:{line}: {message}')


@dataclass
class Function:
    name: str
    takes: str
    arguments: list
    returns: str


@dataclass
class Register:
    address: int
    bytes: int
    line: int
    fields: list = field(default_factory=list)

    @property
    def writable(self):
        return any(variable.kind == SETTING for variable in self.fields)


@dataclass
class Action:
    name: str
    line: int
    entry: dict
    call: formula.Translation = None


@dataclass
class Variable:
    name: str
    kind: str
    type: str
    line: int
    entry: dict
    range: list = None
    items: list = field(default_factory=list)
    auto: object = None  # a number, the text of an item, or a Translation
    register: Register = None
    high: int = None  # the bits of its register
    low: int = None
    write: formula.Translation = None
    read: formula.Translation = None
    sources: list = field(default_factory=list)
    dependents: list = field(default_factory=list)
    level: int = 0

    @property
    def flags(self):
        return [TYPES[self.type]] + KINDS[self.kind]

    @property
    def width(self):
        return self.high - self.low + 1


@dataclass
class Description:
    model: str
    source: str
    header: str
    prefix: str
    functions: dict
    registers: list
    variables: list
    actions: list
    symbols: list
    order: list  # variables by level
    note: str  # on all of its variables

    def symbol(self, text):
        return self.symbols.index(text)


def models(path):
    """The names of the models that a description file covers."""
    return _Reader(Path(path)).models()


def load(path, model, explained=False):
    """The description of a model. Where it is to be explained, each variable and action has a help text and a level."""
    return _Loader(_Reader(Path(path)), model, explained).load()


class _Reader:
    """The file's content, and the line each row of its arrays stands on: a row is one line that starts with '{'."""

    def __init__(self, path):
        self.path = path
        try:
            text = path.read_text(encoding='utf-8')
        except UnicodeDecodeError as error:
            raise DescriptionError(path, path.read_bytes()[:error.start].count(b'\n') + 1, 'not UTF-8') from error
        self.lines = text.split('\n')
        self.content = self.parse(text)
        for key in self.content:
            self.check_texts(self.line_of(key), key)
            if key not in TOP_LEVEL:
                self.fail(self.line_of(key), f'unknown key "{key}"')

    def parse(self, text):
        try:
            return tomllib.loads(text)
        except tomllib.TOMLDecodeError as error:
            at = re.search(r'at line (\d+)', str(error))
            raise DescriptionError(self.path, at[1] if at else len(self.lines), f'not TOML: {error}') from error
        except ValueError as error:
            digits = re.compile(rf'[\d_]{{{sys.get_int_max_str_digits()}}}')
            at = next((i for i, line in enumerate(self.lines, 1) if digits.search(line)), 1)
            raise DescriptionError(self.path, at, 'a number has too many digits') from error
        except RecursionError as error:
            depths = list(itertools.accumulate(line.count('[') - line.count(']') + line.count('{') - line.count('}')
                                               for line in self.lines))
            raise DescriptionError(self.path, depths.index(max(depths)) + 1, 'nested too deeply') from error

    def fail(self, line, message):
        raise DescriptionError(self.path, line, message)

    def line_of(self, key):
        pattern = re.compile(rf'\s*\[*\s*{re.escape(key)}\b')
        return next((i for i, line in enumerate(self.lines, 1) if pattern.match(line)), 1)

    def array(self, key):
        rows = self.content.get(key, [])
        if not isinstance(rows, list) or not all(isinstance(row, dict) for row in rows):
            self.fail(self.line_of(key), f'"{key}" is not an array of tables')
        return rows

    def models(self):
        for line, row in self.rows('models'):
            if not is_name(row.get('name')):
                self.fail(line, 'a model has a name of letters, digits and underscores')
        return [row['name'] for row in self.array('models')]

    def rows(self, key):
        """(line, row) for each row of an array."""
        rows, start = self.array(key), self.line_of(key)
        if not rows:
            return []
        lines = []
        for number, text in enumerate(self.lines[start:], start + 1):
            if text.startswith(']'):
                break
            if text.lstrip().startswith('{'):
                lines.append(number)
        if len(lines) != len(rows):
            self.fail(start, f'"{key}" has {len(rows)} rows on {len(lines)} lines: each row takes one line of its own')
        for line, row in zip(lines, rows):
            self.check_texts(line, row)
        return list(zip(lines, rows))

    def check_texts(self, line, value, depth=0):
        """Texts stand in C++ literals and in lists: printable ASCII only."""
        if depth > 8:
            self.fail(line, 'nested too deeply')
        if isinstance(value, str) and not re.fullmatch('[ -~]*', value):
            self.fail(line, f'{ascii(value)} has characters outside printable ASCII')
        if isinstance(value, (list, dict)):
            for each in value if isinstance(value, list) else [*value.keys(), *value.values()]:
                self.check_texts(line, each, depth + 1)


def _substituted(value, model):
    if isinstance(value, str):
        return value.replace('{model}', model)
    if isinstance(value, list):
        return [_substituted(each, model) for each in value]
    if isinstance(value, dict):
        return {key: _substituted(each, model) for key, each in value.items()}
    return value


def is_name(value):
    return isinstance(value, str) and re.fullmatch(r'[A-Za-z_]\w*', value, re.ASCII)


def _is_integer(value):
    return isinstance(value, int) and not isinstance(value, bool) and abs(value) <= formula.INTEGER_MAX


def _is_number(value):
    return _is_integer(value) or isinstance(value, float) and math.isfinite(value)


class _Loader:
    def __init__(self, reader, model, explained):
        self.reader = reader
        self.model = model
        self.explained = explained

    def fail(self, line, message):
        self.reader.fail(line, message)

    def rows(self, key):
        return [(line, _substituted(row, self.model)) for line, row in self.reader.rows(key)]

    def text(self, key, default=None):
        value, line = self.reader.content.get(key, default), self.reader.line_of(key)
        if not isinstance(value, str):
            self.fail(line, f'"{key}" is missing or not a text')
        self.reader.check_texts(line, value)
        return value.replace('{model}', self.model)

    def path(self, key):
        value = self.text(key)
        if not re.fullmatch(r'[\w./+-]+', value):
            self.fail(self.reader.line_of(key), f'"{key}" is no path: {value}')
        return value

    def prefix(self):
        value = self.text('prefix', '')
        if value and not is_name(value):
            self.fail(self.reader.line_of('prefix'), f'"{value}" can\'t begin a name')
        return value

    def load(self):
        constants = self.load_constants()
        functions = self.load_functions()
        registers = self.load_registers()
        variables, actions = self.load_table(registers)
        if not variables or not actions:
            self.fail(self.reader.line_of('table'), f'{self.model} has no variable or no action')
        for variable in variables:
            if variable.name in constants:
                self.fail(variable.line, f'"{variable.name}" is a constant of the model too')
        symbols = self.number_symbols()
        scope = formula.Scope(
            variables={v.name: v for v in variables}, functions=functions, constants=constants,
            prefix=self.prefix())
        for variable in variables:
            scope.items = {item: symbols.index(item) for item in variable.items}
            self.translate_variable(variable, scope, actions)
        scope.items = {}
        for action in actions:
            if 'call' in action.entry:
                action.call = self.translate_call(action.entry['call'], action, scope, ('code', 'unchecked'))
        self.check_registers(registers)
        self.connect(variables)
        order = sorted(variables, key=lambda v: v.level)  # stable: template order within a level
        return Description(self.model, self.path('source'), self.path('header'), scope.prefix, functions, registers,
                           variables, actions, symbols, order, self.text('note', ''))

    # ---- Rows ----

    def load_constants(self):
        count = self.reader.models().count(self.model)
        if count != 1:
            self.fail(self.reader.line_of('models'), f'model "{self.model}" is described {count} times')
        line, row = next((line, row) for line, row in self.rows('models') if row['name'] == self.model)
        constants = {key: value for key, value in row.items() if key != 'name'}
        for key, value in constants.items():
            if not is_name(key) or not _is_integer(value):
                self.fail(line, f'constant "{key}" is not a name with an integer of 64 bits')
        return constants

    def load_functions(self):
        functions = {}
        for line, row in self.rows('functions'):
            if set(row) - {'name', 'takes', 'arguments', 'returns'} or 'name' not in row:
                self.fail(line, 'a function has a name, what it takes, its arguments and what it returns')
            function = Function(row['name'], row.get('takes'), row.get('arguments', []), row.get('returns'))
            if not is_name(function.name):
                self.fail(line, 'a function has a name of letters, digits and underscores')
            if function.name in functions:
                self.fail(line, f'duplicate function "{function.name}"')
            if function.takes not in ('set', 'owner'):
                self.fail(line, f'function "{function.name}" takes neither set nor owner')
            if function.returns not in formula.RESULTS:
                self.fail(line, f'function "{function.name}" returns none of {", ".join(formula.RESULTS)}')
            if not isinstance(function.arguments, list):
                self.fail(line, f'the arguments of "{function.name}" are no list of types')
            for argument in function.arguments:
                if argument not in list(formula.ARGUMENTS):
                    self.fail(line, f'an argument of "{function.name}" has none of the types {", ".join(formula.ARGUMENTS)}')
            functions[function.name] = function
        return functions

    def load_registers(self):
        registers = {}
        for line, row in self.rows('registers'):
            address, count = row.get('address'), row.get('bytes')
            if set(row) != {'address', 'bytes'} or not _is_integer(address) or not _is_integer(count):
                self.fail(line, 'a register has an address and a number of bytes')
            if not 0 <= address <= 127:
                self.fail(line, f'register address 0x{address:x} is outside 0..0x7f')
            if not 1 <= count <= 8:
                self.fail(line, f'register 0x{address:x} has {count} bytes, not 1 to 8')
            if address in registers:
                self.fail(line, f'duplicate register 0x{address:x}')
            registers[address] = Register(address, count, line)
        return list(registers.values())

    def model_rows(self):
        """The rows of the table that this model has."""
        names = self.reader.models()
        for line, row in self.rows('table'):
            for key in TEXTS:
                if not isinstance(row.get(key, ''), str):
                    self.fail(line, f'"{key}" is not a text')
            if 'only' in row and row['only'] not in names:
                self.fail(line, f'unknown model "{row["only"]}"')
            if row.get('only', self.model) == self.model:
                yield line, row

    def load_table(self, registers):
        by_address = {register.address: register for register in registers}
        variables, actions, names = [], [], set()
        for line, row in self.model_rows():
            name, kind = row.get('name'), row.get('kind')
            if not is_name(name):
                self.fail(line, f'"{name}" is no name')
            if name in names:
                self.fail(line, f'duplicate name "{name}"')
            names.add(name)
            if kind not in KEYS:
                self.fail(line, f'"{name}" has the unknown kind "{kind}"')
            for key in row.keys() - ALWAYS - KEYS[kind]:
                self.fail(line, f'"{name}" is a {kind} and has no "{key}"')
            self.check_meaning(line, row)
            if kind == ACTION:
                actions.append(self.load_action(line, row))
            else:
                variables.append(self.load_variable(line, row, by_address))
        return variables, actions

    def check_meaning(self, line, row):
        name = row['name']
        if 'level' in row and row['level'] not in LEVELS:
            self.fail(line, f'the level of "{name}" is none of {", ".join(LEVELS)}')
        for key in ('help', 'level'):
            if self.explained and not row.get(key):
                self.fail(line, f'"{name}" has no {key}')

    def load_action(self, line, row):
        name = row['name']
        ways = [way for way in WAYS_TO_ACT if way in row]
        if len(ways) != 1:
            self.fail(line, f'action "{name}" has {len(ways)} of {", ".join(WAYS_TO_ACT)}, not 1')
        if 'strobe' in row and (not _is_integer(row['strobe']) or not 0 <= row['strobe'] <= 127):
            self.fail(line, f'action "{name}" strobes a number outside 0..127')
        return Action(name, line, row)

    def load_variable(self, line, row, registers):
        variable = Variable(row['name'], row['kind'], row.get('type'), line, row)
        if variable.type not in TYPES:
            self.fail(line, f'"{variable.name}" has the unknown type "{variable.type}"')
        if variable.type == 'enum':
            self.load_items(variable)
        else:
            self.load_range(variable)
        if variable.kind == READOUT and (variable.type != 'int' or 'register' not in row):
            self.fail(line, f'readout "{variable.name}" is not an integer in a register')
        if 'register' in row:
            self.load_field(variable, registers)
        elif 'bits' in row:
            self.fail(line, f'"{variable.name}" has bits but no register')
        return variable

    def load_items(self, variable):
        items = variable.entry.get('items')
        if 'range' in variable.entry:
            self.fail(variable.line, f'enumeration "{variable.name}" has a range')
        if not isinstance(items, list) or not items or \
                not all(isinstance(i, str) and i not in ('', INVALID_SYMBOL) for i in items):
            self.fail(variable.line, f'enumeration "{variable.name}" has no items')
        variable.items = items

    def load_range(self, variable):
        limits = variable.entry.get('range')
        if 'items' in variable.entry:
            self.fail(variable.line, f'"{variable.name}" has items but is no enumeration')
        accepted = _is_integer if variable.type == 'int' else _is_number
        if not isinstance(limits, list) or len(limits) != 2 or not all(accepted(limit) for limit in limits):
            self.fail(variable.line, f'"{variable.name}" has no range of two numbers of its type')
        if limits[0] > limits[1]:
            self.fail(variable.line, f'"{variable.name}" has an empty range')
        if variable.type == 'int' and not 0 <= limits[0] <= limits[1] <= formula.INTEGER_MAX:
            self.fail(variable.line, f'the range of "{variable.name}" is outside 0..{formula.INTEGER_MAX}')
        variable.range = limits

    def load_field(self, variable, registers):
        row, name = variable.entry, variable.name
        if variable.type == 'float':
            self.fail(variable.line, f'"{name}" is real and can\'t be held in a register')
        if 'write' in row:
            self.fail(variable.line, f'"{name}" has both a register and a function that writes it')
        if not _is_integer(row['register']) or row['register'] not in registers:
            self.fail(variable.line, f'"{name}" is held in an unknown register')
        register = registers[row['register']]
        bits = row.get('bits', [8 * register.bytes - 1, 0])
        if variable.kind == SETTING and 'bits' not in row:
            self.fail(variable.line, f'"{name}" has a register but no bits')
        if not isinstance(bits, list) or len(bits) != 2 or not all(_is_integer(b) for b in bits) or \
                not bits[0] >= bits[1] >= 0:
            self.fail(variable.line, f'the bits of "{name}" are not [highest, lowest]')
        if bits[0] >= 8 * register.bytes:
            self.fail(variable.line, f'field "{name}" is wider than register 0x{register.address:x} '
                                     f'of {register.bytes} bytes')
        variable.register, (variable.high, variable.low) = register, bits
        for other in register.fields:
            if variable.low <= other.high and other.low <= variable.high:
                self.fail(variable.line, f'field "{name}" overlaps "{other.name}" in register 0x{register.address:x}')
        highest = len(variable.items) - 1 if variable.type == 'enum' else variable.range[1]
        if highest >= 2**variable.width:
            self.fail(variable.line, f'the range of "{name}" is wider than its field of {variable.width} bits')
        register.fields.append(variable)

    def check_registers(self, registers):
        for register in registers:
            if not register.fields:
                self.fail(register.line, f'register 0x{register.address:x} holds nothing')
            if len({variable.kind for variable in register.fields}) > 1:
                self.fail(register.fields[-1].line,
                          f'register 0x{register.address:x} holds both settings and readouts')

    def number_symbols(self):
        """Each text once, in order of first appearance."""
        texts = {INVALID_SYMBOL: None}
        for _, row in self.model_rows():
            for text in [row['name'], *row.get('items', [])]:
                texts.setdefault(text)
        return list(texts)

    # ---- Formulas ----

    def translate(self, text, owner, scope):
        if not isinstance(text, str):
            self.fail(owner.line, f'the formula of "{owner.name}" is not a text')
        try:
            return formula.translate(text, scope)
        except formula.FormulaError as error:
            self.fail(owner.line, f'"{owner.name}": {error}')

    def translate_call(self, text, owner, scope, results):
        translation = self.translate(text, owner, scope)
        if translation.expression.type not in results:
            self.fail(owner.line, f'"{text}" of "{owner.name}" returns none of {", ".join(results)}')
        return translation

    def translate_variable(self, variable, scope, actions):
        row = variable.entry
        if 'auto' in KEYS[variable.kind]:
            self.translate_auto(variable, scope)
        if 'write' in row:
            variable.write = self.translate_call(row['write'], variable, scope, ('code', 'unchecked'))
        if variable.kind == LIVE:
            if 'read' not in row:
                self.fail(variable.line, f'live read "{variable.name}" has no function that reads it')
            results = ('int',) if variable.type == 'int' else ('int', 'float')
            variable.read = self.translate_call(row['read'], variable, scope, results)
        if 'then' in row:
            if row['then'] not in {action.name for action in actions}:
                self.fail(variable.line, f'"{variable.name}" triggers the unknown action "{row["then"]}"')
            if not variable.register and not variable.write:
                self.fail(variable.line, f'"{variable.name}" triggers an action after a write that it does not have')

    def translate_auto(self, variable, scope):
        auto = variable.entry.get('auto')
        if auto is None:
            self.fail(variable.line, f'"{variable.name}" has no automatic value')
        if isinstance(auto, str) and auto not in variable.items:
            self.translate_auto_formula(variable, auto, scope)
            return
        accepted = {'int': _is_integer, 'float': _is_number, 'enum': lambda value: value in variable.items}
        if not accepted[variable.type](auto):
            self.fail(variable.line, f'the automatic value of "{variable.name}" is not of its type')
        if variable.range and not variable.range[0] <= auto <= variable.range[1]:
            self.fail(variable.line, f'the automatic value of "{variable.name}" is outside its range')
        variable.auto = auto

    def translate_auto_formula(self, variable, text, scope):
        results = ('item',) if variable.type == 'enum' else ('int', 'float')
        variable.auto = self.translate_call(text, variable, scope, results)
        variable.sources = variable.auto.sources

    # ---- Dependencies ----

    def connect(self, variables):
        by_name = {variable.name: variable for variable in variables}
        for variable in variables:
            self.find_level(variable, by_name, [])
            for source in variable.sources:
                by_name[source].dependents.append(variable)

    def find_level(self, variable, by_name, path):
        if variable in path:
            names = [each.name for each in path[path.index(variable):]] + [variable.name]
            self.fail(variable.line, f'cycle: {" reads ".join(names)}')
        if variable.level:
            return variable.level
        if len(path) == DEEPEST:
            self.fail(variable.line, f'"{variable.name}" ends a chain of {DEEPEST} variables that read each other')
        levels = [self.find_level(by_name[name], by_name, path + [variable]) for name in variable.sources]
        variable.level = 1 + max(levels, default=0)
        return variable.level
