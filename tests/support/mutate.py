"""Small faults in C++ sources, found by machine: each is a place and what stands there instead, behind a switch."""
import random
import re
import subprocess
from collections import namedtuple

# `text` takes the place of the bytes from `begin` to `end`; each @ in it is the switch.
Mutant = namedtuple('Mutant', 'file begin end line kind told text')

KINDS = {'sync': 1, 'check': 4, 'bound': 4, 'constant': 3, 'logic': 2, 'negated': 2, 'assignment': 3, 'call': 2}
# The write path, recovery and readers: three times as often as the rest.
OFTEN = re.compile(r'searchthing/(hot|merge|directory|upkeep|seal|slice|search|reading|columns)/|'
                   r'libveldar/(store|load)/')
SKIP = re.compile(r'ASSERT|assert|printf|_msg\(|_verbose\(|log_|fmt::|say_|R"|@|^(static )?(using|constexpr)\b|#')
SYNC = re.compile(r'(?:::f(?:data)?sync|::msync|disk_sync_directory|osfile_flush)\((?:[^()]|\([^()]*\))*\)')
DECLARATION = re.compile(r'((?:(?:static|const|unsigned) )*(?!return|throw|delete|else)[A-Za-z_][\w:]*(?:<.*?>)?'
                         r'(?: const)?[ *&]+(?:const )?(?:\w+|\[[\w, ]+\]) = )(?!\{)(.+)$')
CALL = re.compile(r'(?!return\b)[\w:.>\[\]*-]+\(.*\)$')
ASSIGNMENT = re.compile(r'(?!return|throw)[*\w:.>\[\]-]+( [+|&*/^-]?= |\+\+$|--$)')
LEAD = re.compile(r'\s+|#(?:\\\n|[^\n])*|(?:else|do|try)\b|(?:case\b[^;{}]*?[^:]|default|public|private):(?!:)')
HEAD = re.compile(r'(if|while|for|switch)\s*\(')
LEAVES = re.compile(r'\)\s*\{?\s*(return|throw|fail|break|continue|_set)')
STRING = r'"(?:\\.|[^"\\\n])*"|(?<![0-9a-fA-F])\'(?:\\.|[^\'\\\n])+\''
SWAPS = {'<': '<=', '<=': '<', '>': '>=', '>=': '>', '&&': '||', '||': '&&', '==': '!=', '!=': '=='}


def closing(mask, i):
    """The place of the bracket that closes the one at i."""
    depth = 0
    for j in range(i, len(mask)):
        depth += (mask[j] in '({[') - (mask[j] in ')}]')
        if depth == 0: return j
    return len(mask) - 1


def units(mask):
    """(begin, end, form) of each statement and each condition inside functions."""
    scopes, i, start = [], 0, 0
    while i < len(mask):
        if start == i:
            lead, head = LEAD.match(mask, i), HEAD.match(mask, i)
            if lead:
                i = start = lead.end()
                continue
            if head:
                begin, end = head.end(), closing(mask, head.end() - 1)
                if head[1] == 'for' and mask.count(';', begin, end) == 2:
                    begin = mask.index(';', begin) + 1
                    yield begin, mask.index(';', begin), 'for'
                elif head[1] != 'for' and not re.search(r';| = ', mask[begin:end]):
                    yield begin, end, head[1]
                i = start = end + 1
                continue
        c = mask[i]
        if c == '{':
            text = mask[start:i].strip()
            is_type = re.match(r'(template.*>\s*)?(namespace|struct|class|enum|union|extern)\b', text)
            if is_type or re.search(r'(^|[):;"]|\b(const|noexcept|override|mutable))$', text):
                scopes.append('type' if is_type else 'code')
                start = i + 1
            else:
                i = closing(mask, i)
        elif c in '([':
            i = closing(mask, i)
        elif c == '}':
            if scopes: scopes.pop()
            start = i + 1
        elif c == ';':
            if 'code' in scopes: yield start, i + 1, 'statement'
            start = i + 1
        i += 1


def swaps(text, mask):
    """(kind, changed text) for each part of an expression that can be changed by itself."""
    for m in re.finditer(r'(?<= )(<=?|>=?|&&|\|\||[=!]=)(?=\s)', mask):
        kind = 'bound' if m[1][0] in '<>' else 'logic' if m[1][0] in '&|' else 'negated'
        yield kind, text[:m.start()] + SWAPS[m[1]] + text[m.end():]
    for m in re.finditer(r"(?<![\w.'])(\d+)(?=[uUlL]*\b(?![.']))", mask):
        for step in (1, -1) if m[1] != '0' else (1,):
            yield 'constant', text[:m.start()] + str(int(m[1]) + step) + text[m.end():]
    for m in re.finditer(r'std::(?:min|max)(?:<[\w:]+>)?(?=\()', mask):
        end, depth = closing(mask, m.end()), 0
        for i in range(m.end() + 1, end):
            depth += (mask[i] in '({[') - (mask[i] in ')}]')
            if mask[i] == ',' and depth == 0:
                for part in (text[m.end() + 1:i], text[i + 1:end]):
                    yield 'bound', text[:m.start()] + '(' + part.strip() + ')' + text[end + 1:]
    for m in SYNC.finditer(text):
        yield 'sync', text[:m.start()] + ('true' if 'disk' in m[0] else '0') + text[m.end():]


def mutants(text, mask, form, after):
    """(kind, what is told, what is compiled) of one unit."""
    def instead(new):
        return f'{{ if (@) {{ {new}; }} else {{ {text}; }} }}'

    declared = DECLARATION.match(text)
    if form != 'statement':
        for kind, new in swaps(text, mask):
            yield kind, new, f'(@ ? static_cast<bool>({new}) : static_cast<bool>({text}))'
        if form == 'if':
            yield 'negated', f'!({text})', f'(static_cast<bool>({text}) != @)'
            if LEAVES.match(after): yield 'check', f'if ({text}) never', f'(static_cast<bool>({text}) && !@)'
    elif declared:
        name, value = declared.groups()
        for kind, new in swaps(value, mask[len(name):]):
            yield kind, name + new, f'{name}@ ? ({new}) : ({value});'
    else:
        for kind, new in swaps(text, mask):
            yield kind, new, instead(new)
        if text.startswith('ST_TRY('):
            yield 'check', f'{text} ignored', instead(f'static_cast<void>{text[6:]}')
        elif CALL.match(text):
            yield 'sync' if re.match(r'\w*sync\w*\(', text) else 'call', f'{text} dropped', instead('')
        elif ASSIGNMENT.match(text):
            yield 'assignment', f'{text} dropped', instead('')


def all_mutants(tree, paths):
    """By kind, those of the sources that git knows below the paths."""
    found = {kind: [] for kind in KINDS}
    listed = subprocess.run(['git', 'ls-files', *paths], cwd=tree, capture_output=True, text=True, check=True).stdout
    for file in listed.split():
        if not file.endswith('.cc'): continue
        with open(f'{tree}/{file}') as source: code = source.read()
        code = re.sub(rf'//[^\n]*|({STRING})', lambda m: m[0] if m[1] else ' ' * len(m[0]), code)
        mask = re.sub(STRING, lambda m: m[0][0] + 'x' * (len(m[0]) - 2) + m[0][0], code)
        for begin, end, form in units(mask):
            begin += len(code[begin:end]) - len(code[begin:end].lstrip())
            text, shown = (re.sub(r'\s*\n\s*', ' ', t[begin:end].rstrip(';')).strip() for t in (code, mask))
            if text == '' or SKIP.search(text): continue
            line = code.count('\n', 0, begin) + 1
            for kind, told, new in mutants(text, shown, form, mask[end:end + 60]):
                found[kind].append(Mutant(file, begin, end, line, kind, told, new))
    return found


def draw(tree, paths, kinds, count, seed):
    """So many of them of these kinds, one a statement at most."""
    random.seed(seed)
    found, taken, drawn = all_mutants(tree, paths), set(), []
    for kind in set(KINDS) - set(kinds): found[kind].clear()
    while len(drawn) < count and any(found.values()):
        kind = random.choices(list(KINDS), [KINDS[k] * bool(found[k]) for k in KINDS])[0]
        one = found[kind].pop(random.randrange(len(found[kind])))
        if one[:2] in taken: continue
        if OFTEN.search(one.file) or random.random() < 1 / 3:
            taken.add(one[:2])
            drawn.append(one)
        else:
            found[kind].append(one)
    return drawn
