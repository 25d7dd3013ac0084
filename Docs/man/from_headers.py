#!/usr/bin/env python3
"""Makes the manual pages of section 3 from the public headers.

usage: from_headers.py [--version VERSION] DIRECTORY HEADER...

Writes one page per header into DIRECTORY, and for every function a page that leads to it. It knows the marks that the
headers use: @file, @brief, @code, @name, @{, @}, @p, @param, @retval, @return, tables, **bold** and `names`.
"""

import argparse
import pathlib
import re
import sys
from dataclasses import dataclass, field

OVERVIEW = "zol"  # its page is libzol(3), which lists all others
LEFT_OUT = {"kiv_export"}  # nothing in it is for applications
SHARED_NAMES = re.compile(r"(kiv|zol|spi)_")  # other names get no page of their own: they may belong to other packages


@dataclass
class Entry:
    """Declarations that one comment describes."""
    text: str
    declarations: list = field(default_factory=list)
    title: str = ""

    def functions(self):
        return [name for name in map(function_name, self.declarations) if name]


@dataclass
class Header:
    name: str
    brief: str
    text: str
    entries: list

    def page(self):
        return "libzol" if self.name == OVERVIEW else self.name

    def functions(self):
        return [name for entry in self.entries for name in entry.functions()]


def function_name(declaration):
    if declaration.startswith(("#", "typedef", "extern")) or "{" in declaration:
        return None
    found = re.match(r"[\w\s*]*?(\w+)\(", declaration)
    return found and found[1]


# Reading the headers.

def comment_text(raw):
    """The text of a comment, without its frame."""
    return re.sub(r"^[ \t]*\*(  ?(?! )| )?", "", raw[3:-2], flags=re.M).strip() if "\n" in raw else raw[3:-2].strip()


def tokens(source):
    """Comments, definitions and declarations, and the blank lines between them, as (kind, text)."""
    pattern = re.compile(r"""
        (?P<blank>\n[ \t]*\n) | (?P<space>\s+)
      | (?P<doc>/\*\*(?!<).*?\*/) | (?P<comment>/\*.*?\*/)
      | (?P<define>\#[ \t]*define(?:\\\n|[^\n])*) | (?P<directive>\#(?:\\\n|[^\n])*)
      | (?P<linkage>KIV_EXTERN_C_\w+)
      | (?P<declaration>(?:/\*.*?\*/|\{(?:/\*.*?\*/|[^{}])*\}|[^;{}])*;(?:[ \t]*/\*\*<.*?\*/)?)
      """, re.S | re.X)
    at = 0
    while at < len(source):
        found = pattern.match(source, at)
        if not found:
            sys.exit(f"cannot read: {source[at:at + 60]!r}")
        yield found.lastgroup, found[0]
        at = found.end()


def tidy(kind, text):
    """A declaration without the marks of the library's build."""
    text = text.replace("/**<", "/*").strip()
    if kind == "define":
        macro = re.match(r"#\s*define\s+(\w+\([^)]*\))", text)
        return macro[1] if macro else re.sub(r"#\s*define\s+(\w+)\s+", r"#define \1 ", text)
    if text.startswith("KIV_API "):  # the next lines are indented less by as much
        text = text.removeprefix("KIV_API ").replace("\n" + " " * len("KIV_API "), "\n")
    text = text.replace("KIV_API ", "")
    return re.sub(r"\s*KIV_(PRINTF|SCANF)_LIKE\([^)]*\)", "", text)


def read_entries(source):
    entries, doc, group, joins = [], "", None, None
    for kind, text in tokens(source):
        if kind == "blank":
            joins = None
        elif kind == "doc":
            text = comment_text(text)
            if "@}" in text:
                group = None
            elif "@name" in text:
                title, _, rest = text.replace("@{", "").replace("@name", "").strip().partition("\n")
                group = Entry(rest.strip(), title=title.strip())
                entries.append(group)
            else:
                doc = text
        elif kind in ("define", "declaration"):
            if kind == "define" and re.match(r"#\s*define\s+\w+_\b", text):
                continue
            described = doc or group or joins or (kind == "declaration" and "/**<" in text)
            if not described or "@file" in doc:
                doc = ""
                continue
            entry = Entry(doc) if doc or not (group or joins) else (group or joins)
            if entry not in (group, joins):
                entries.append(entry)
            entry.declarations.append(tidy(kind, text))
            joins, doc = (entry if kind == "define" else None), ""
    return entries


def read_header(path):
    source = path.read_text()
    file_comment = comment_text(re.search(r"/\*\*.*?\*/", source, re.S)[0])
    brief, _, text = re.sub(r"@file\s+\S+\s+@brief\s+", "", file_comment).partition("\n\n")
    return Header(path.stem, " ".join(brief.split()).removeprefix("libzol: "), text, read_entries(source))


# Writing pages.

def literal(text):
    """Text without formatting."""
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return re.sub(r"^(?=[.'])", r"\\&", text, flags=re.M)


def prose(text):
    text = " ".join(text.split()).replace("\\", "\\e")
    text = re.sub(r"(?<![\w)])-(?=\S)", r"\\-", text)
    text = re.sub(r"@p (\w+)|`([^`]*)`", lambda found: f"\\fI{found[1] or found[2]}\\fP", text)
    text = re.sub(r"\*\*(.+?)\*\*", r"\\fB\1\\fP", text)
    text = re.sub(r"\b(\w+)\(\)", r"\\fB\1\\fP()", text)
    return re.sub(r"^(?=[.'])", r"\\&", text)


def code(text):
    lines = [line.rstrip() for line in text.strip("\n").split("\n")]
    margin = min((len(line) - len(line.lstrip()) for line in lines if line), default=0)
    return ".PP\n.RS 4\n.EX\n" + literal("\n".join(line[margin:] for line in lines)) + "\n.EE\n.RE\n"


def table(lines):
    rows = [[cell.strip() for cell in line.strip().strip("|").split("|")] for line in lines]
    rows = [rows[0]] + rows[2:]  # the second is the rule under the titles
    columns = len(rows[0])
    widest = max(range(columns), key=lambda column: max(len(row[column]) for row in rows))
    formats = ["lx" if column == widest else "l" for column in range(columns)]  # the widest takes the rest of the line
    out = [".TS", " ".join(["lb"] * columns), " ".join(formats) + "."]
    out += ["\t".join(f"T{{\n{prose(cell)}\nT}}" for cell in row) for row in rows]
    return "\n".join(out + [".TE", ""])


def blocks(text):
    """Paragraphs, tables and code."""
    for part in re.split(r"(@code.*?@endcode)", text, flags=re.S):
        if part.startswith("@code"):
            yield code(re.sub(r"@code(\{.*?\})?|@endcode", "", part))
            continue
        for paragraph in re.split(r"\n\s*\n", part.strip("\n")):
            lines = paragraph.split("\n")
            if not paragraph.strip():
                continue
            if all(line.startswith("   ") for line in lines):
                yield code(paragraph)
            elif lines[0].lstrip().startswith("|"):
                yield table(lines)
            else:
                starts = [i for i, line in enumerate(lines) if line.startswith("|")]
                before = lines[:starts[0]] if starts else lines
                yield ".PP\n" + prose("\n".join(before)) + "\n"
                if starts:
                    yield table(lines[starts[0]:])


def described(text):
    """A comment with its parameters and results."""
    parts = re.split(r"(?:^|(?<=\s))@(param(?:\[out\])?|retval|return)\s+", text)
    out = "".join(blocks(parts[0]))
    titles = {"param": "Parameters", "retval": "Results", "return": "Results"}
    section = None
    for tag, body in zip(parts[1::2], parts[2::2]):
        if section != titles[tag.removesuffix("[out]")]:
            section = titles[tag.removesuffix("[out]")]
            out += f".PP\n{section}:\n"
        if tag == "return":
            out += ".RS 4\n" + prose(body) + "\n.RE\n"
            continue
        names, body = re.match(r"([\w-]+(?:,\s?\w+)*)\s*(.*)", body, re.S).groups()
        note = " (output)" if tag == "param[out]" else ""
        style = "B" if tag == "retval" else "I"
        out += f".RS 4\n.TP\n\\f{style}{literal(names)}\\fP{note}\n{prose(body)}\n.RE\n"
    return out


def reference(entry):
    out = f".SS \"{entry.title.rstrip('.')}\"\n" if entry.title else ".PP\n"
    listing = literal("\n".join(entry.declarations))
    return out + ".EX\n\\fB" + listing.replace("\n", "\\fP\n\\fB") + "\\fP\n.EE\n" + \
        ".RS 4\n" + described(entry.text) + ".RE\n.sp\n"


def section(title, entries):
    return f".SH {title}\n" + "".join(map(reference, entries)) if entries else ""


def module_list(headers):
    out = ".SH MODULES\n"
    for header in headers:
        if header.name != OVERVIEW:
            out += f".TP\n.BR {header.name} (3)\n{prose(header.brief)}\n"
    return out


def see_also(header, headers):
    pages = [other.page() for other in headers if other is not header]
    return ".SH SEE ALSO\n" + "".join(f".BR {page} (3),\n" for page in sorted(pages)) + \
        ".BR kiv_conf (5),\n.BR kivtest.exe (1),\n.BR zol (1),\n.BR zol_troubleshooting (7)\n"


def write_page(header, headers, version):
    functions = [entry for entry in header.entries if entry.functions()]
    others = [entry for entry in header.entries if not entry.functions()]
    names = ", ".join([header.page()] + [name for name in header.functions() if SHARED_NAMES.match(name)])
    return "".join([
        "'\\\" t\n.\\\" Made from the header by from_headers.py.\n",
        f".TH {header.page()} 3 \"\" \"libzol {version}\" \"libzol\"\n.nr HY 0\n.hy 0\n.ad l\n",
        f".SH NAME\n{names} \\- {prose(header.brief.rstrip('.'))}\n",
        ".SH LIBRARY\nlibzol\n.RI ( \\-lzol ;\npkg\\-config\n.IR libzol )\n",
        f".SH SYNOPSIS\n.nf\n.B #include <zol/{header.name}.h>\n.fi\n",
        ".SH DESCRIPTION\n", "".join(blocks(header.text)),
        module_list(headers) if header.name == OVERVIEW else "",
        section("TYPES, CONSTANTS AND MACROS", others),
        section("FUNCTIONS", functions),
        see_also(header, headers),
    ])


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("--version", default="")
    parser.add_argument("directory", type=pathlib.Path)
    parser.add_argument("header", type=pathlib.Path, nargs="+")
    args = parser.parse_args()
    headers = [read_header(path) for path in sorted(args.header) if path.stem not in LEFT_OUT]
    args.directory.mkdir(parents=True, exist_ok=True)
    for old in args.directory.glob("*.3"):  # of functions that are no more
        old.unlink()
    for header in headers:
        for name in header.functions():
            if SHARED_NAMES.match(name):
                (args.directory / f"{name}.3").write_text(f".so man3/{header.page()}.3\n")
        (args.directory / f"{header.page()}.3").write_text(write_page(header, headers, args.version))


if __name__ == "__main__":
    main()
