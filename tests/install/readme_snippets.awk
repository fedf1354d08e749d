# Turns README.md's ```cpp blocks into one translation unit: every #include first (once),
# then each block at file scope in a namespace of its own, then an empty main. A program
# that compiles, links and starts shows that README's code matches the installed API.
/^```cpp[ \t]*$/ { inblock = 1; ++n; body = body "namespace readme_block_" n " {\n"; next }
inblock && /^```[ \t]*$/ { inblock = 0; body = body "}  // namespace readme_block_" n "\n\n"; next }
inblock && /^#include/ { if (!seen[$0]++) includes = includes $0 "\n"; next }
inblock { body = body $0 "\n" }
END {
    if (n == 0) { print "README.md has no cpp blocks" > "/dev/stderr"; exit 1 }
    printf "// Generated from README.md (%d blocks)\n%s\n%s", n, includes, body
    print "int main() { return 0; }"
}
