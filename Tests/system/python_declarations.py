# Compares the declarations of Python's package zol with the public headers: every name, its result and
# parameters, the records' members and sizes. Names that Python leaves out have a reason in the package.
# usage: python_declarations.py HEADER_DIRECTORY LAYOUT_C
import ctypes
import pathlib
import re
import sys

from zol import _native

RECORDS = {name: f"{record.__name__}*" for name, record in _native.RECORDS.items()}
# How a type of C looks in a declaration of ctypes. Buffers and handles are pointers without a type.
ALIKE = {"int": "int32_t", "uintptr_t": "size_t", "kiv_gpio_cbk": "function",
         "kiv_thread_handler": "function", "kiv_events_notify_cb": "pointer"}
POINTERS = {"int32_t*", "uint32_t*"} | {f"{record.__name__}*" for record in _native.RECORDS.values()}
SCALARS = {ctypes.c_int32: "int32_t", ctypes.c_uint32: "uint32_t", ctypes.c_uint16: "uint16_t",
           ctypes.c_uint8: "uint8_t", ctypes.c_size_t: "size_t", None: "void"}


def category_in_c(declared):
    """int *out -> int32_t*"""
    words = re.sub(r"\b(const|struct)\b", "", declared)
    kind, stars = re.match(r"\s*(\w+|\.\.\.)", words).group(1), "*" * words.count("*")
    kind = ALIKE.get(kind, kind)
    typed = RECORDS.get(kind, kind + "*")
    return kind if not stars else typed if typed in POINTERS and stars == "*" else "pointer"


def category_in_python(declared):
    if declared is ...:
        return "..."
    if declared in (ctypes.c_char_p, ctypes.c_void_p):
        return "pointer"
    if declared is not None and issubclass(declared, ctypes._CFuncPtr):
        return "function"
    if declared is not None and issubclass(declared, ctypes._Pointer):
        target = declared._type_
        return "pointer" if target is ctypes.c_void_p else SCALARS.get(target, target.__name__) + "*"
    return SCALARS[declared]


def declarations(text):
    """The marked declarations of the headers, as (name, [result, parameter, ...])."""
    marked = r"KIV_API\s([^;]*?)\s*(?:KIV_(?:PRINTF|SCANF)_LIKE\([^)]*\))?;"
    for declared in re.findall(marked, text):
        result, name, parameters = re.match(r"(.*?)(\w+)(?:\[.*|\((.*)\))?$", declared, re.S).groups()
        if parameters is None:
            yield name, None
        else:
            words = re.split(r",\s*", parameters)
            yield name, [result] + [word for word in words if word not in ("void", "")]


def compare_function(name, declared):
    in_c = [category_in_c(kind) for kind in declared]
    in_python = [category_in_python(kind) for kind in _native.FUNCTIONS[name]]
    return [] if in_c == in_python else [f"{name}: {in_c} in C, {in_python} in Python"]


def compare_records(text, layout):
    for name, record in _native.RECORDS.items():
        body = re.search(rf"struct {name} {{(.*?)\n}}", text, re.S).group(1)
        members = re.findall(r"(\w+)(?:\[\w+\])?;", re.sub(r"/\*.*?\*/", "", body, flags=re.S))
        if members != [field[0] for field in record._fields_]:
            yield f"{name}: the members are {members}"
        size = re.search(rf"SIZE\w*\({name}, (\d+), (\d+)\)", layout).group(2 if sys.maxsize > 2**32 else 1)
        if ctypes.sizeof(record) != int(size):
            yield f"{name}: {size} bytes in C, {ctypes.sizeof(record)} in Python"


def main(headers, layout):
    text = "".join(path.read_text() for path in pathlib.Path(headers).glob("*.h"))
    text = re.sub(r"/\*.*?\*/", "", text, flags=re.S)
    text = "\n".join(line for line in text.splitlines() if not line.lstrip().startswith("#"))
    declared = dict(declarations(text))
    bound = {*_native.FUNCTIONS, *_native.VARIABLES}
    left_out = {name for name in declared for pattern in _native.LEFT_OUT if re.fullmatch(pattern, name)}
    faults = [f"{name}: in the headers only" for name in declared if name not in bound | left_out]
    faults += [f"{name}: in Python only" for name in bound - set(declared)]
    faults += [f"{name}: bound, and left out" for name in bound & left_out]
    faults += [f"{pattern}: stands for no name" for pattern in _native.LEFT_OUT
               if not any(re.fullmatch(pattern, name) for name in declared)]
    for name in sorted(set(_native.FUNCTIONS) & set(declared)):
        faults += compare_function(name, declared[name])
    faults += compare_records(text, pathlib.Path(layout).read_text())
    passed = f"{len(_native.FUNCTIONS)} functions, {len(_native.RECORDS)} records: as in the headers"
    print(*faults or [passed], sep="\n")
    return len(faults) > 0 or len(declared) < 80


sys.exit(main(*sys.argv[1:]))
