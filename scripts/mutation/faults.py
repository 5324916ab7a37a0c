# SPDX-License-Identifier: Apache-2.0
"""The faults that can be put into a source, by rule. It reads the text, formatted as clang-format
leaves it, and not the language: a fault that doesn't compile is drawn again."""
import collections
import re

Fault = collections.namedtuple("Fault", "path rule start end text")

LEVELS = ["FATAL_LOG", "ERROR_LOG", "WARN_LOG", "NOTICE_LOG", "INFO_LOG", "DEBUG_LOG"]
COMPARISONS = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
HIDDEN = re.compile(
    r'//[^\n]*|/\*.*?\*/|R"\((?:.*?)\)"|"(?:\\.|[^"\\\n])*"|(?<![0-9a-fA-F])\'(?:\\.|[^\'\\\n])+\''
    r'|^[ \t]*#(?:[^\n]*\\\n)*[^\n]*', re.S | re.M)
SIMPLE = re.compile(r"^( +)(?:(?:[\w:]+(?:\(\))?(?:\.|->))*[\w:]+(?:<[\w:]+>)?\(.*\)|\+\+[\w.>-]+"
                    r"|[\w.>\[\]*-]+ [|&+-]?= [^{]*);$")
FIELD = re.compile(r"^ +[\w:<>*]+(?: [\w:<>*]+)* \w+(?: = [^;]+)?;$")
VIRTUAL = re.compile(r"^ +virtual [^{]*(?:;|\{\})$")
ENUMERATOR = re.compile(r"\b([A-Z][A-Z0-9]*_)[A-Z0-9_]+\b|\b(\w+::)k[A-Z]\w*\b")


def code_of(text):
    """The text with comments, strings and directives blanked, every character in its place."""
    return HIDDEN.sub(lambda m: re.sub(r"[^\n]", "_" if m[0][0] in "\"'R" else " ", m[0]), text)


def closing(code, opened):
    depth = 0
    for at in range(opened, len(code)):
        depth += (code[at] in "([{") - (code[at] in ")]}")
        if depth == 0:
            return at
    return len(code)


def arguments(code, start, end):
    """Ranges of what commas part between two places."""
    ranges, depth, begin = [], 0, start
    for at in range(start, end):
        depth += (code[at] in "([{") - (code[at] in ")]}")
        if code[at] == "," and depth == 0:
            ranges.append((begin, at))
            begin = at + 1
    ranges.append((begin, end))
    return [(a + len(code[a:b]) - len(code[a:b].lstrip()), a + len(code[a:b].rstrip())) for a, b in ranges]


def conditions(code, text):
    for m in re.finditer(r"\b(if|while|REFUSE_IF)\s*\(", code):
        start, end = m.end(), closing(code, m.end() - 1)
        if m[1] == "REFUSE_IF":
            start, end = arguments(code, start, end)[0]
        start = max(start, code.rfind("; ", start, end) + 2) if "; " in code[start:end] else start
        if re.search(r"[\w*&>] \w+ = ", code[start:end]):
            continue
        yield start, end, "false"
        if m[1] != "while":
            yield start, end, "!(" + text[start:end] + ")"
    for m in re.finditer(r"\s(\?) ", code):
        start, end = operand(code, m.start(1), -1, ""), len(code[:m.start(1)].rstrip())
        if start < end:
            yield start, end, "!(" + text[start:end] + ")"


def operand(code, at, step, operator):
    """Where the operand of && or || that begins, or ends, at an operator goes to."""
    depth, opening, ending = 0, ("([{", ")]}")[step < 0], (")]}", "([{")[step < 0]
    while 0 < at < len(code):
        at += step
        depth += (code[at] in opening) - (code[at] in ending)
        if depth < 0 or depth == 0 and (
                code[at] in ",;{}" or code[at:at + 3] == " ? " or code[at:at + 3] == " : "
                or code[at:at + 3] == " = " or operator == "&&" and code[at:at + 2] == "||"
                or step < 0 and re.match(r"(return|<<)\s", code[at:at + 7])
                or step > 0 and code[at:at + 2] in ("&&", "||")):
            break
    if step > 0:
        return len(code[:at].rstrip())
    at += {"r": 6, "|": 2, "<": 2}.get(code[at], 2 if code[at] == " " else 1)
    return at + len(code[at:]) - len(code[at:].lstrip())


def operands(code, text):
    for m in re.finditer(r"\s(&&|\|\|)\s", code):
        start = operand(code, m.start(), -1, m[1])
        end = operand(code, m.end(1), 1, m[1])
        yield start, end, text[start:m.start()]
        yield start, end, text[m.end():end].lstrip()


def comparisons(code, _):
    for m in re.finditer(r"(?<!template)(?<!operator) (<=?|>=?|[=!]=)(?=\s)", code):
        yield m.start(1), m.end(1), COMPARISONS[m[1]]


def constants(code, _):
    for m in re.finditer(r"(?<![\w.'])(\d[\d']*)(?![\w.']|\.\d)|(?<![\w.'])(\d[\d']*)(?=[uUlL]+\b)", code):
        value = int((m[1] or m[2]).replace("'", ""))
        yield m.start(), m.end(), str(value + 1)
        if value > 1:
            yield m.start(), m.end(), str(value - 1)
    for m in re.finditer(r"\b(true|false)\b", code):
        if not re.search(r"return $", code[:m.start()][-8:]):
            yield m.start(), m.end(), "false" if m[1] == "true" else "true"


def levels(code, _):
    for m in re.finditer(r"\b(" + "|".join(LEVELS) + r")\b", code):
        at = LEVELS.index(m[1])
        yield m.start(), m.end(), LEVELS[at - 1] if at > 0 else LEVELS[1]
        yield m.start(), m.end(), LEVELS[at + 1] if at < 5 else LEVELS[4]


def enumerators(code, _):
    found = list(ENUMERATOR.finditer(code))
    for m in found:
        like = sorted({o[0] for o in found if (o[1] or o[2]) == (m[1] or m[2])} - {m[0]})
        if like and m[0] not in LEVELS and not m[0].startswith("ZELTA_LOG_MODULE"):
            after = [name for name in like if name > m[0]] or like
            yield m.start(), m.end(), after[0]


def returns(code, _):
    for m in re.finditer(r"\breturn (true|false|-1|0|!)(?=;|\w)", code):
        if m[1] == "!" or code[m.end()] == ";":
            yield m.start(1), m.end(1), {"true": "false", "false": "true", "-1": "0", "0": "-1", "!": ""}[m[1]]


def lines(code):
    at = 0
    for line in code.split("\n"):
        yield at, at + len(line), line
        at += len(line) + 1


def statements(code, _):
    before = ""
    for start, end, line in lines(code):
        if SIMPLE.match(line) and re.search(r"[;{}:)]\s*$", before) and not line.startswith("  return"):
            yield start, end, SIMPLE.match(line)[1] + ";"
        before = line if line.strip() else before


def swapped_lines(code, text):
    known = [SIMPLE, re.compile(r"^ +\{.*\},$"), VIRTUAL]
    if "_;\n" not in code:  # Where private members stand in memory is nobody's business.
        known.append(FIELD)
    above = None
    for one in lines(code):
        for shape in known if above else ():
            alike = len(one[2]) - len(one[2].lstrip()) == len(above[2]) - len(above[2].lstrip())
            if alike and shape.match(above[2]) and shape.match(one[2]) and one[2] != above[2]:
                yield above[0], one[1], text[one[0]:one[1]] + "\n" + text[above[0]:above[1]]
                break
        above = one


def swapped_arguments(code, text):
    for m in re.finditer(r"[\w>]\(|[\w>\s(,]\{", code):
        end = closing(code, m.end() - 1)
        if ";" in code[m.end():end] or re.search(r"^(void|bool|static|for|while)\b", code[m.start():]):
            continue
        ranges = arguments(code, m.end(), end)
        parts = [text[a:b] for a, b in ranges]
        # A parameter list, not arguments.
        if any(re.search(r"\w[*&]* [*&]?\w+$|^const ", part) and "?" not in part for part in parts):
            continue
        for (a, b), (c, d) in zip(ranges, ranges[1:]):
            # Enumerators that have values mean the same in any order.
            valued = re.search(r"\w = ", text[a:b]) and re.search(r"\w = ", text[c:d])
            if text[a:b] != text[c:d] and b > a and d > c and not valued:
                yield a, d, text[c:d] + text[b:c] + text[a:b]


def left_out_fields(code, _):
    for m in re.finditer(r"\b(ZELTA_FIELDS|std::tie|copy_fields)\(", code):
        ranges = arguments(code, m.end(), closing(code, m.end() - 1))
        for (_, b), (_, d) in zip(ranges, ranges[1:]):
            yield b, d, ""


RULES = {
    "condition": conditions, "operand": operands, "comparison": comparisons, "constant": constants,
    "level": levels, "enumerator": enumerators, "return": returns, "statement": statements,
    "lines": swapped_lines, "arguments": swapped_arguments, "field": left_out_fields,
}


def faults_of(path, text):
    code = code_of(text)
    return {rule: [Fault(path, rule, *one) for one in dict.fromkeys(find(code, text))]
            for rule, find in RULES.items()}


def apply(text, fault):
    return text[:fault.start] + fault.text + text[fault.end:]


def difference(text, fault):
    """What a person sees of a fault: the lines before and after, each as one."""
    first = text.rfind("\n", 0, fault.start) + 1
    last = text.find("\n", fault.end) if "\n" in text[fault.end:] else len(text)
    old = text[first:last]
    new = text[first:fault.start] + fault.text + text[fault.end:last]
    return " ".join(old.split()), " ".join(new.split())
