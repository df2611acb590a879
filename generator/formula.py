"""Formulas of descriptions: a small subset of Python expressions, translated to C++.

Numbers, item texts, constants of the model, variables and driver functions; + - * / << >>, unary minus, one comparison,
`a if condition else b`. `/` is the division of real numbers. An enumeration is its item index, and may be compared with
an item's text.
"""
import ast
import math
import operator
from dataclasses import dataclass, field

ARGUMENTS = {'int16': 'int', 'int32': 'int', 'uint32': 'int', 'int64': 'int', 'float': 'float', 'double': 'float'}
RESULTS = ('int', 'float', 'code', 'unchecked')
INTEGER_MAX = 2**63 - 1
DEEPEST = 100  # nested operations, fewer than what compilers take
FOLDED = {ast.Add: operator.add, ast.Sub: operator.sub, ast.Mult: operator.mul}
BINARY = {ast.Add: '+', ast.Sub: '-', ast.Mult: '*', ast.Div: '/', ast.LShift: '<<', ast.RShift: '>>'}
COMPARISONS = {ast.Eq: '==', ast.NotEq: '!=', ast.Lt: '<', ast.LtE: '<=', ast.Gt: '>', ast.GtE: '>='}


class FormulaError(Exception):
    pass


@dataclass
class Expression:
    """C++ text and its type: int, float, condition, item, or what a driver function returns."""
    code: str
    type: str
    number: int = None  # of an integer that is known now


@dataclass
class Scope:
    """What a formula may name."""
    variables: dict  # name -> variable
    functions: dict  # name -> function
    constants: dict  # name -> number
    prefix: str = ''  # of the names of driver functions
    items: dict = field(default_factory=dict)  # of the variable that the formula is for: text -> symbol number


@dataclass
class Translation:
    expression: Expression
    sources: list = field(default_factory=list)  # names of the variables read


def translate(text, scope):
    try:
        tree = ast.parse(text, mode='eval').body
    except (SyntaxError, ValueError, RecursionError, MemoryError) as error:
        raise FormulaError(f'formula "{text}" is not an expression') from error
    translator = _Translator(scope)
    return Translation(translator.visit(tree), translator.sources)


def integer_literal(value):
    return f'INT64_C({value})'


def commented(number, text):
    return f'{number} /* {text.replace("*", "")} */'


def float_literal(value):
    return repr(float(value))


def as_float(expression):
    if expression.type == 'float':
        return expression.code
    if expression.number is not None:
        return float_literal(expression.number)
    if expression.type == 'int':
        return f'static_cast<double>({expression.code})'
    raise FormulaError('expected a number')


def as_integer(expression):
    if expression.type == 'int':
        return expression.code
    if expression.type == 'float':
        return f'truncated({expression.code})'
    raise FormulaError('expected a number')


def _bounded(number):
    if abs(number) > INTEGER_MAX:
        raise FormulaError('a number is too large')
    return number


class _Translator(ast.NodeVisitor):
    def __init__(self, scope):
        self.scope = scope
        self.sources = []
        self.depth = 0

    def visit(self, node):
        if self.depth == DEEPEST:
            raise FormulaError(f'more than {DEEPEST} operations are nested')
        self.depth += 1
        expression = super().visit(node)
        self.depth -= 1
        return expression

    def generic_visit(self, node):
        raise FormulaError(f'"{ast.unparse(node)}" is not part of the formula language')

    def visit_Constant(self, node):
        value = node.value
        if isinstance(value, bool):
            return self.generic_visit(node)
        if isinstance(value, int):
            return Expression(integer_literal(value), 'int', _bounded(value))
        if isinstance(value, float):
            if math.isinf(value):
                raise FormulaError('a number is too large')
            return Expression(float_literal(value), 'float')
        if isinstance(value, str):
            if value not in self.scope.items:
                raise FormulaError(f'unknown item "{value}"')
            return Expression(commented(self.scope.items[value], value), 'item')
        return self.generic_visit(node)

    def visit_Name(self, node):
        name = node.id
        if name in self.scope.constants:
            return Expression(integer_literal(self.scope.constants[name]), 'int', self.scope.constants[name])
        if name not in self.scope.variables:
            raise FormulaError(f'unknown name "{name}"')
        if name not in self.sources:
            self.sources.append(name)
        if self.scope.variables[name].type == 'float':
            return Expression(f'floatOf(set, kVar_{name})', 'float')
        return Expression(f'integerOf(set, kVar_{name})', 'int')

    def visit_UnaryOp(self, node):
        if not isinstance(node.op, ast.USub):
            return self.generic_visit(node)
        operand = self._number(node.operand)
        return Expression(f'(-{operand.code})', operand.type, None if operand.number is None else -operand.number)

    def visit_BinOp(self, node):
        if type(node.op) not in BINARY:
            return self.generic_visit(node)
        sign = BINARY[type(node.op)]
        left, right = self._number(node.left), self._number(node.right)
        if sign in ('<<', '>>'):
            if left.type != 'int' or right.type != 'int':
                raise FormulaError(f'"{ast.unparse(node)}" shifts a real number')
            shift = 'shiftedLeft' if sign == '<<' else 'shiftedRight'
            return Expression(f'{shift}({left.code}, {right.code})', 'int')
        if sign == '/' or 'float' in (left.type, right.type):
            return Expression(f'({as_float(left)} {sign} {as_float(right)})', 'float')
        folded = None if None in (left.number, right.number) else _bounded(FOLDED[type(node.op)](left.number, right.number))
        return Expression(f'({left.code} {sign} {right.code})', 'int', folded)

    def visit_Compare(self, node):
        if len(node.ops) != 1 or type(node.ops[0]) not in COMPARISONS:
            return self.generic_visit(node)
        sign = COMPARISONS[type(node.ops[0])]
        left, right = self._operand(node.left, node.comparators[0]), self._operand(node.comparators[0], node.left)
        if 'float' in (left.type, right.type):
            return Expression(f'({as_float(left)} {sign} {as_float(right)})', 'condition')
        return Expression(f'({left.code} {sign} {right.code})', 'condition')

    def visit_IfExp(self, node):
        condition = self.visit(node.test)
        if condition.type != 'condition':
            raise FormulaError(f'"{ast.unparse(node.test)}" is not a comparison')
        yes, no = self.visit(node.body), self.visit(node.orelse)
        if yes.type == no.type and yes.type in ('int', 'float', 'item'):
            return Expression(f'({condition.code} ? {yes.code} : {no.code})', yes.type)
        return Expression(f'({condition.code} ? {as_float(yes)} : {as_float(no)})', 'float')

    def visit_Call(self, node):
        if not isinstance(node.func, ast.Name) or node.keywords:
            return self.generic_visit(node)
        name = node.func.id
        if name not in self.scope.functions:
            raise FormulaError(f'unknown function "{name}"')
        function = self.scope.functions[name]
        if len(node.args) != len(function.arguments):
            raise FormulaError(f'{name} takes {len(function.arguments)} arguments, not {len(node.args)}')
        context = 'ownerOf(set)' if function.takes == 'owner' else 'set'
        arguments = [context] + [self._argument(a, kind) for a, kind in zip(node.args, function.arguments)]
        return Expression(f'{self.scope.prefix}{name}({", ".join(arguments)})', function.returns)

    def _argument(self, node, kind):
        argument = self._number(node)
        converted = as_float(argument) if ARGUMENTS[kind] == 'float' else as_integer(argument)
        return f'static_cast<{kind if ARGUMENTS[kind] == "float" else kind + "_t"}>({converted})'

    def _number(self, node):
        expression = self.visit(node)
        if expression.type not in ('int', 'float'):
            raise FormulaError(f'"{ast.unparse(node)}" is not a number')
        return expression

    def _operand(self, node, other):
        """One side of a comparison; the text of an item becomes its index in the variable on the other side."""
        if not (isinstance(node, ast.Constant) and isinstance(node.value, str)):
            return self._number(node)
        variable = self.scope.variables.get(other.id) if isinstance(other, ast.Name) else None
        if not variable or node.value not in variable.items:
            raise FormulaError(f'"{node.value}" is not an item of "{ast.unparse(other)}"')
        return Expression(integer_literal(variable.items.index(node.value)), 'int')
