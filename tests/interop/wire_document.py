# SPDX-License-Identifier: Apache-2.0
"""The examples in docs/wire.md: blocks of hex, with what each byte means behind "#".

    PYTHONPATH=build/dev/tests/interop/bindings python3 tests/interop/wire_document.py docs/wire.md

prints each as it should stand there, so that nobody has to count bytes by hand."""

import re
import sys

from google.protobuf.descriptor import FieldDescriptor

from message_pb2 import Message

VARINT, LENGTH_DELIMITED = 0, 2
CODE_COLUMN = 38


def examples(document):
    """The text of each block, by its name."""
    with open(document, encoding="utf-8") as file:
        blocks = re.findall(r"^```hex ([a-z-]+)\n(.*?)^```$", file.read(), re.MULTILINE | re.DOTALL)
    return dict(blocks)


def bytes_of(block):
    return bytes.fromhex("".join(line.partition("#")[0] for line in block.splitlines()))


def rows(document, heading):
    """The rows of the table below a heading, without the two lines of its head."""
    with open(document, encoding="utf-8") as file:
        section = file.read().split(f"\n{heading}\n", 1)[1]
    table = re.search(r"^(\|.*\n)+", section, re.MULTILINE).group(0).splitlines()
    return table[2:]


def annotate(data, descriptor=Message.DESCRIPTOR, depth=0):
    """A message's bytes with their meaning, field by field."""
    text = ""
    while data:
        key, key_bytes = read_varint(data)
        number, wire_type = key >> 3, key & 7
        value, value_bytes = read_varint(data[len(key_bytes) :])
        start = len(key_bytes) + len(value_bytes)
        field = descriptor.fields_by_number[number]
        label = f"{number} {field.name}"
        if wire_type == VARINT:
            text += code_line(data[:start], depth, f"{label}: {value}{enum_name(field, value)}")
            data = data[start:]
            continue
        assert wire_type == LENGTH_DELIMITED
        content, rest = data[start : start + value], data[start + value :]
        if field.type == FieldDescriptor.TYPE_MESSAGE:
            text += code_line(data[:start], depth, f"{label}, {value} bytes:")
            text += annotate(content, field.message_type, depth + 1)
        else:
            text += code_line(data[:start], depth, f'{label}, {value} bytes: "{content.decode()}"')
            for i in range(0, len(content), 12):
                text += code_line(content[i : i + 12], depth + 1)
        data = rest
    return text


def code_line(data, depth, comment=""):
    indent = "  " * depth
    code = indent + data.hex(" ")
    return f"{code:{CODE_COLUMN}}# {indent}{comment}\n" if comment else f"{code}\n"


def read_varint(data):
    value, size = 0, 0
    while True:
        value |= (data[size] & 0x7F) << (7 * size)
        size += 1
        if data[size - 1] < 0x80:
            return value, data[:size]


def enum_name(field, value):
    return f" ({field.enum_type.values_by_number[value].name})" if field.enum_type else ""


if __name__ == "__main__":
    for name, block in examples(sys.argv[1]).items():
        print(f"```hex {name}\n{annotate(bytes_of(block))}```\n")
