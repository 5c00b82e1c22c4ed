#!/usr/bin/env python3
"""Usage: docs/site.py filter FILE | manuals DIRECTORY | check DIRECTORY

filter prints FILE as doxygen reads it: a page with the line that the README's table of documents
has about it, a header whose comments that begin with "@return" begin with a sentence. manuals turns
the tool's manual pages into pages of the site. check looks over the site in DIRECTORY: every link
leads somewhere, every operation has a brief line, every page stands in the README's table, and every
option of CMake in that of docs/building.md.
"""
import pathlib
import re
import sys
import xml.etree.ElementTree as ElementTree

TOP = pathlib.Path(__file__).resolve().parents[1]
ROW = re.compile(r"^\| \[[^]]*\]\(([^)]*\.md)\) \| (.*) \|$", re.M)


def anchor(page, heading):
    """The name of a heading in the whole site."""
    slug = re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "_").replace("-", "_")
    return f"{page.removesuffix('.md').replace('/', '_')}_{slug}"


def filter_page(path):
    """Headings get names of their own: doxygen finds those of another page by nothing else."""
    if not path.resolve().is_relative_to(TOP):
        return path.read_text()
    name, text = str(path.resolve().relative_to(TOP)), path.read_text()
    lines = dict(ROW.findall((TOP / "README.md").read_text()))
    if name in lines:
        text = re.sub(r"\A(# .*\n)", lambda title: f"{title[1]}\n\\brief {lines[name]}\n", text)
    text = re.sub(r"^##+ (.*[^}\n])$", lambda match: f"{match[0]} {{#{anchor(name, match[1])}}}",
                  text, flags=re.M)

    def link(match):
        target = (path.resolve().parent / match[1]).resolve() if match[1] else path.resolve()
        return f"](@ref {anchor(str(target.relative_to(TOP)), match[2])})"
    return re.sub(r"\]\(([\w./-]+\.md)?#([\w-]+)\)", link, text)


def filter_header(path):
    result, begins = [], True
    for line in path.read_text().split("\n"):
        match = begins and re.match(r"(\s*/// )@return (.*)", line)
        result.append(f"{match[1]}Returns {match[2]}" if match else line)
        begins = not line.lstrip().startswith("///")
    return "\n".join(result)


def to_markdown(text):
    """One line of scdoc: bold and underlined words, escapes, line ends."""
    text = re.sub(r"(?<![\w\\])\*([^*\s](?:[^*]*[^*\s])?)\*", r"<b>\1</b>", text)
    text = re.sub(r"(?<![\w\\])_([^_\s](?:[^_]*[^_\s])?)_(?!\w)", r"<em>\1</em>", text)
    return re.sub(r"\+\+$", "  ", text).replace("\\", "").replace("--", "\\--")


def manual(path):
    """A manual page as a page of the site: a term and its indented text become a list's item, and
    lines that are indented by themselves are shown as they are."""
    name, text = path.name.removesuffix(".1.scd"), path.read_text()
    purpose = re.search(rf"^{name} - (.*)", text, re.M)[1]
    title = f"# {name.replace('-', ' ')} {{#manual_{name.replace('-', '_')}}}"
    result = [title, "", f"\\brief {purpose}"]
    lines, literal, indented_as = text.split("\n")[1:], False, "    "
    for line, following in zip(lines, [*lines[1:], ""]):
        if line.startswith("```"):
            literal = not literal
        elif line.startswith("# ") and not literal:
            line = f"## {line[2:].capitalize()}"
        elif line.startswith("\t") and not literal:
            is_shown = len(indented_as) == 4
            line = line[1:].removesuffix("++") if is_shown else to_markdown(line[1:])
            line = indented_as + line
        elif line and not literal:
            is_term = following.startswith("\t")
            indented_as = "  " if is_term else "    "
            line = f"- {to_markdown(line)}  " if is_term else to_markdown(line)
        elif not literal:
            indented_as = "    "
        result.append(line)
    return "\n".join(result)


def dead_links(html):
    for page in sorted(html.glob("*.html")):
        for target in set(re.findall(r'(?:href|src)="([^"#:]+)(?=["#])', page.read_text())):
            if not (html / target).exists():
                yield f"{page.name}: the link to {target} leads nowhere"


def operations_without_brief(xml):
    for page in sorted(xml.glob("*.xml")):
        for member in ElementTree.parse(page).iter("memberdef"):
            brief = "".join(member.find("briefdescription").itertext()).strip()
            is_operation = member.get("kind") == "function" and member.get("prot") == "public"
            signature = f'{member.findtext("definition")}{member.findtext("argsstring")}'
            speaks_for_itself = re.search("~|=(delete|default)$", signature)
            if is_operation and not brief and not speaks_for_itself:
                yield f"{member.findtext('qualifiedname')}: no brief line"


def pages_without_row():
    rows = dict(ROW.findall((TOP / "README.md").read_text()))
    for page in [*TOP.glob("*.md"), *TOP.glob("docs/*.md")]:
        name = str(page.relative_to(TOP))
        if name not in rows and name != "README.md":
            yield f"{name}: not in the README's table of documents"


def options_without_row():
    rows = set(re.findall(r"^\| `(VLX_\w+)` \|", (TOP / "docs/building.md").read_text(), re.M))
    cmake = "".join(path.read_text() for path in [TOP / "CMakeLists.txt", *TOP.glob("cmake/*.cmake")])
    options = set(re.findall(r"\boption\((VLX_\w+)|\bset\((VLX_\w+) [^)]* CACHE ", cmake))
    for option in {name for names in options for name in names if name} ^ rows:
        yield f"{option}: an option without a row in docs/building.md, or the reverse"


def check(site):
    faults = [*dead_links(site / "html"), *operations_without_brief(site / "xml"),
              *pages_without_row(), *options_without_row()]
    print("\n".join(faults) or "docs: links, brief lines and table of documents are right")
    return bool(faults)


command, path = sys.argv[1], pathlib.Path(sys.argv[2])
if command == "filter":
    print((filter_header if path.suffix == ".hpp" else filter_page)(path))
elif command == "manuals":
    path.mkdir(parents=True, exist_ok=True)
    for source in TOP.glob("tools/man/*.scd"):
        (path / source.name.replace(".1.scd", ".md")).write_text(manual(source))
else:
    sys.exit(check(path))
