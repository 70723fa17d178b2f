"""Makes the pages of the C interface from Doxygen's XML of the public headers: one Markdown
page a header, in the order of the header, each declaration with its whole comment.
"""
import re
import xml.etree.ElementTree as ElementTree


def text_of(node):
    """The words of a node as Markdown, on one line."""
    words = escaped(node.text)
    for child in node:
        if child.tag == "computeroutput":
            words += f"`{''.join(child.itertext())}`"
        elif child.tag == "ref":
            words += reference("".join(child.itertext()))
        elif child.tag != "parameterlist":
            words += text_of(child)
        words += escaped(child.tail)
    return re.sub(r"\s+", " ", words)


def escaped(text):
    return re.sub(r"([\\`*_{}\[\]<>#|])", r"\\\1", text or "")


def reference(name):
    if name.endswith(".h"):
        return f"[{escaped(name)}]({name}.md)"
    return f"{{c:func}}`{name[:-2]}`" if name.endswith("()") else f"{{c:type}}`{name}`"


def paragraphs(description):
    """Lists of parameters and paragraphs; Doxygen puts a list before the words of its paragraph."""
    for para in description.findall("para"):
        for item in para.findall("parameterlist/parameteritem"):
            words = text_of(item.find("parameterdescription")).strip()
            yield from (f":param {name.text}: {words}" for name in item.iter("parametername"))
        if words := text_of(para).strip():
            yield words


def comment(node):
    return "\n".join(
        text if text.startswith(":param") else f"\n{text}\n"
        for text in paragraphs(node.find("detaileddescription")))


def directive(kind, signature, body, fence="```"):
    return f"{fence}{{c:{kind}}} {signature}\n{body.strip()}\n{fence}\n"


def declared(member):
    """A declaration as the C domain reads it, without its links."""
    name = member.findtext("name")
    type_name = "".join(member.find("type").itertext())
    arguments = member.findtext("argsstring") or ""
    return f"{type_name}{'' if type_name.endswith('(*') else ' '}{name}{arguments}"


def enumeration(member):
    values = "\n".join(
        directive("enumerator", f"{value.findtext('name')} {value.findtext('initializer')}",
                  comment(value)) for value in member.findall("enumvalue"))
    return f"{comment(member)}\n\n{values}"


def structure(compound):
    members = "\n".join(directive("member", declared(member), comment(member))
                        for member in compound.iter("memberdef"))
    return directive("struct", compound.findtext("compoundname"),
                     f"{comment(compound)}\n\n{members}", fence="````")


def rendered(node):
    kind = node.get("kind")
    if kind == "enum":
        return enumeration(node)
    if kind == "struct":
        return structure(node)
    return directive("type" if kind == "typedef" else kind, declared(node), comment(node))


def declarations(compounds, header):
    """(title of its group or None, node) of all that a header declares, in its order."""
    found = {}
    groups = {inner.get("refid"): compound.findtext("title") for compound in compounds
              if compound.get("kind") == "group" for inner in compound.iter("innerclass")}
    for compound in compounds:  # files before groups, which know more of the same functions
        if compound.get("kind") == "struct":
            entries = [(groups.get(compound.get("id")), compound)]
        else:
            entries = [(compound.findtext("title"), member)
                       for member in compound.findall("sectiondef/memberdef")]
        for group, node in entries:
            location = node.find("location")
            names_struct = (node.findtext("type") or "").startswith("struct")
            if location.get("file").endswith("/" + header) and not names_struct:
                found[int(location.get("line"))] = group, node
    return [entry for _, entry in sorted(found.items())]


def page(compounds, file):
    header = file.findtext("compoundname")
    pieces = [f"# {header}\n{comment(file)}\n"]
    section = None
    for group, node in declarations(compounds, header):
        if group != section:
            pieces.append(f"## {group}\n")
            section = group
        pieces.append(rendered(node))
    return "\n".join(pieces)


def pages(directory):
    """Name and text of each header's page, from the XML files in a directory."""
    compounds = [compound for pattern in ("*_8h.xml", "struct*.xml", "group*.xml")
                 for path in sorted(directory.glob(pattern))
                 for compound in ElementTree.parse(path).getroot()]
    for compound in compounds:
        if compound.get("kind") == "file":
            yield compound.findtext("compoundname"), page(compounds, compound)
