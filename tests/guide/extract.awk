# SPDX-License-Identifier: Apache-2.0
# Takes the C++ of a Markdown text apart: awk -v folder=OUT -v source=NAME -f extract.awk guide.md
#
# A block that has an "int main" begins with a comment that names it, "// patterns.cpp", and becomes that file. Before
# every other block stands a comment that doesn't show when the text is rendered, "<!-- at namespace scope -->" or
# "<!-- in a function -->", and all these blocks become one file, fragments.inc, in their order. Compilers report lines of
# the text itself.

function refuse(reason) {
    print source ":" begin ": " reason >"/dev/stderr"
    failed = 1
}

function end_block(name) {
    if (block ~ /int main\(/) {
        name = block
        sub(/\n.*/, "", name)
        if (name !~ /^\/\/ [a-z_]+\.cpp$/)
            refuse("a program begins with a comment that names it, such as // patterns.cpp")
        sub(/^\/\/ /, "", name)
        printf "#line %d \"%s\"\n%s", begin + 1, source, block >(folder "/" name)
        print name
    }
    else if (scope == "<!-- at namespace scope -->") {
        printf "#line %d \"%s\"\n%s", begin + 1, source, block >(folder "/fragments.inc")
    }
    else if (scope == "<!-- in a function -->") {
        printf "inline void fragment_at_line_%d(GUIDE_NAMES)\n{\n{\n#line %d \"%s\"\n%s}\n}\n", begin, begin + 1, source,
               block >(folder "/fragments.inc")
    }
    else {
        refuse("neither a program nor marked as at namespace scope or in a function")
    }
}

/^```/ {
    if (inside) {
        if (cpp)
            end_block()
        inside = 0
    }
    else {
        inside = 1
        cpp = $0 == "```cpp"
        begin = NR
        block = ""
        scope = previous
    }
    previous = ""
    next
}
inside { block = block $0 "\n"; next }
$0 != "" { previous = $0 }
END { exit failed }
