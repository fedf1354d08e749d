# Doxygen input filter for the public headers: their comments are plain // lines. The block
# at the top of a file describes the file, a comment on lines of its own documents what
# follows it, and a comment after a member's semicolon documents that member. Section rules
# ("// --- planes ---") stay plain comments.
{
    line = $0
    if (!body) {
        if (line ~ /^#pragma/) { print line; next }
        if (line ~ /^\/\//) {
            if (!described) { print "/// \\file"; described = 1 }
            sub(/^\/\/ ?/, "/// ", line)
            print line
            next
        }
        body = 1
    }
    if (line ~ /^[ \t]*\/\/ ---/) { print line; next }
    if (line ~ /^[ \t]*\/\/( |$)/) { sub(/\/\//, "///", line); print line; next }
    if (line ~ /;[ \t]*\/\/ /) sub(/;[ \t]*\/\/ /, "; ///< ", line)
    print line
}
