// Holds every file named on its command line open with no sharing, creating the missing ones,
// prints "locked" once it holds them all, and lets go when its standard input ends or a line
// arrives. For tests of programs that meet a file another program keeps open.
#include <windows.h>

#include <cstdio>

int wmain(int argc, wchar_t** argv) {
    for (int i = 1; i < argc; ++i) {
        if (::CreateFileW(argv[i], GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS,
                          FILE_ATTRIBUTE_NORMAL, nullptr) == INVALID_HANDLE_VALUE)
            return 1;
    }
    std::puts("locked");
    std::fflush(stdout);
    std::getchar();
    return 0;  // process exit closes the handles
}
