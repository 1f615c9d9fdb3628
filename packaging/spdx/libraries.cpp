// Compiled and never run: the names and versions of the C and C++ libraries are read off the bytes
// of the compiled file, so that they are known for another architecture, too.
#include <cstdlib>

#define TEXT_OF(number) #number
#define TEXT(macro) TEXT_OF(macro)

#ifdef __GLIBC__
#define C_LIBRARY "glibc:" TEXT(__GLIBC__) "." TEXT(__GLIBC_MINOR__)
#else
#define C_LIBRARY "libc:NOASSERTION"
#endif

#ifdef _GLIBCXX_RELEASE
#define CXX_LIBRARY "libstdc++:" TEXT(_GLIBCXX_RELEASE)
#else
#define CXX_LIBRARY "libc++:NOASSERTION"
#endif

// The index keeps the texts from being optimised away.
int main(int argc, char**) {
    static const char libraries[] = "<" C_LIBRARY ":" CXX_LIBRARY ">";
    return libraries[argc];
}
