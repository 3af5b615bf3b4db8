# SPDX-License-Identifier: Apache-2.0
# Checks that every link in Markdown pages leads to a file or folder that exists and, in one of these pages, to a heading
# that exists: awk -f links.awk PAGE..., run in the source folder. Links to other sites are not followed.

function folder_of(page) {
    return page ~ /\// ? substr(page, 1, match(page, /\/[^\/]*$/)) : ""
}

# The name by which a page is linked from anywhere: without "./", and "docs/../x" as "x".
function normalised(path) {
    gsub(/\/\.\//, "/", path)
    while (path ~ /[^\/.][^\/]*\/\.\.\//)
        sub(/[^\/.][^\/]*\/\.\.\//, "", path)
    return path
}

# The anchor that hosts of Markdown derive from a heading.
function anchor_of(heading) {
    heading = tolower(heading)
    gsub(/[^a-z0-9 _-]/, "", heading)
    gsub(/ /, "-", heading)
    return heading
}

function check(link, page, target, path, anchor) {
    split(link, parts, SUBSEP)
    page = parts[1]
    target = parts[2]
    path = target
    anchor = ""
    if (match(target, /#/)) {
        path = substr(target, 1, RSTART - 1)
        anchor = substr(target, RSTART + 1)
    }
    path = path == "" ? page : normalised(folder_of(page) path)
    if (system("test -e '" path "'") != 0 || (anchor != "" && !((path, anchor) in headings))) {
        print page ":" links[link] ": leads nowhere: " target
        failed = 1
    }
}

FNR == 1 { fenced = 0 }
/^```/ { fenced = !fenced; next }
fenced || /^    / { next }
/^#/ {
    heading = $0
    sub(/^#+ +/, "", heading)
    headings[FILENAME, anchor_of(heading)] = 1
    next
}
{
    rest = $0
    while (match(rest, /\]\([^)]+\)/)) {
        target = substr(rest, RSTART + 2, RLENGTH - 3)
        if (target !~ /^[a-z]+:\/\//)
            links[FILENAME, target] = FNR
        rest = substr(rest, RSTART + RLENGTH)
    }
}
END {
    for (link in links) {
        check(link)
        ++count
    }
    if (count == 0) {
        print "no links found"
        failed = 1
    }
    exit failed
}
