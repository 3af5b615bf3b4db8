# SPDX-License-Identifier: Apache-2.0
"""Prints what programs that are linked against a library rely on, one fact on a line, sorted.

    abidw ... LIBRARY | describe.py

The facts are the exported functions and variables, and the layout, the virtual functions and the values of our types.
Lines don't depend on which source file defines what, or in which order, so that two of these texts differ only if the
interface does.
"""

import re
import subprocess
import sys
import xml.etree.ElementTree as xml

OURS = re.compile(r"(slate|tarn|tarn_internal)::")


class Description:
    def __init__(self, root):
        self.root = root
        self.elements = {}  # by the id of the type
        self.scopes = {}  # of each element, such as "slate::Queue::"
        self.find_scopes(root, "")
        self.readable = self.demangle()

    def find_scopes(self, element, scope):
        self.scopes[element] = scope
        identifier = element.get("id")
        if identifier and (element.get("is-declaration-only") != "yes" or identifier not in self.elements):
            self.elements[identifier] = element
        if element.tag in ("namespace-decl", "class-decl", "union-decl"):
            scope += element.get("name", "") + "::"
        for child in element:
            self.find_scopes(child, scope)

    def demangle(self):
        names = {element.get("name") for element in self.root.iter("elf-symbol")}
        names |= {element.get("mangled-name") for element in self.root.iter("function-decl")}
        names = sorted(name for name in names if name)
        result = subprocess.run(["c++filt"], input="\n".join(names), capture_output=True, text=True, check=True)
        return dict(zip(names, result.stdout.splitlines()))

    def type(self, identifier):
        element = self.elements.get(identifier)
        if element is None:
            return "?"
        inner = lambda: self.type(element.get("type-id"))
        if element.tag == "pointer-type-def":
            return inner() + "*"
        if element.tag == "reference-type-def":
            return inner() + ("&&" if element.get("kind") == "rvalue" else "&")
        if element.tag == "qualified-type-def":
            return "".join(word + " " for word in ("const", "volatile") if element.get(word)) + inner()
        if element.tag == "array-type-def":
            return inner() + "".join(f"[{bound.get('length')}]" for bound in element.iter("subrange"))
        if element.tag == "function-type":
            return f"{self.type(element.find('return').get('type-id'))}({self.parameters(element)})"
        return self.scopes[element] + element.get("name", "(unnamed)")

    def parameters(self, element):
        return ", ".join("..." if each.get("is-variadic") else self.type(each.get("type-id"))
                         for each in element.iter("parameter"))

    def symbols(self):
        declarations = {element.get("elf-symbol-id"): element
                        for tag in ("function-decl", "var-decl") for element in self.root.iter(tag)}
        for symbol in self.root.iter("elf-symbol"):
            name = symbol.get("name")
            line = self.readable[name]
            declaration = declarations.get(name)
            if declaration is None:
                yield f"symbol {line}"
            elif declaration.tag == "var-decl":
                yield f"variable {line}: {self.type(declaration.get('type-id'))}"
            else:
                result = declaration.find("return")
                yield f"function {line} -> {self.type(result.get('type-id')) if result is not None else 'void'}"

    def members(self, element, name):
        if size := element.get("size-in-bits"):
            yield f"class {name}: {int(size) // 8} bytes"
        for base in element.findall("base-class"):
            virtual = "virtual " if base.get("is-virtual") == "yes" else ""
            offset = int(base.get("layout-offset-in-bits", 0)) // 8
            yield f"class {name}: {virtual}base at {offset}: {self.type(base.get('type-id'))}"
        for member in element.findall("data-member"):
            field = member.find("var-decl")
            if member.get("static") != "yes":
                yield (f"class {name}: at {int(member.get('layout-offset-in-bits', 0)) / 8:g}: "
                       f"{self.type(field.get('type-id'))} {field.get('name')}")
        for member in element.findall("member-function"):
            function = member.find("function-decl")
            if "vtable-offset" in member.attrib and function is not None:
                mangled = function.get("mangled-name")
                yield (f"class {name}: virtual function {member.get('vtable-offset')}: "
                       f"{self.readable.get(mangled, function.get('name'))}")

    def types(self):
        for element in self.root.iter():
            name = self.scopes[element] + element.get("name", "")
            is_hidden = "anonymous" in name or "::::" in name
            if not OURS.match(name) or is_hidden or element.get("is-declaration-only") == "yes":
                continue
            if element.tag in ("class-decl", "union-decl"):
                yield from self.members(element, name)
            elif element.tag == "enum-decl":
                yield f"enum {name}: {self.type(element.find('underlying-type').get('type-id'))}"
                for value in element.findall("enumerator"):
                    yield f"enum {name}: {value.get('name')} = {value.get('value')}"


description = Description(xml.parse(sys.stdin).getroot())
for line in sorted({*description.symbols(), *description.types()}):
    print(line)
