// Stand-in for the render server in the launcher's tests, built as "KALDClusterServer" beside the
// test program. It prints how it was started, one line each:
//
//   arg <argument>        every argument, the program path first
//   env <value>           KALD_LOCAL_SERVICE, or "-" when unset
//   fds <n> <n> ...       its open descriptors, without the one it lists them with
//
// and ends, or with a last argument "stay:FILE" writes its process id into FILE and waits until
// a signal ends it.
#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        std::printf(
            "usage: KALDClusterServer [argument...] [stay:FILE]\n"
            "Test stand-in: prints its arguments, KALD_LOCAL_SERVICE and open descriptors; "
            "\"stay:FILE\" last writes its process id into FILE and waits for a signal.\n");
        return 0;
    }
    for (int i = 0; i < argc; ++i) {
        std::printf("arg %s\n", argv[i]);
    }
    const char* pipeName = std::getenv("KALD_LOCAL_SERVICE");
    std::printf("env %s\nfds", pipeName != nullptr ? pipeName : "-");
    if (DIR* listing = ::opendir("/proc/self/fd")) {  // in ascending order
        while (const dirent* entry = ::readdir(listing)) {
            if (entry->d_name[0] != '.' && std::atoi(entry->d_name) != ::dirfd(listing)) {
                std::printf(" %s", entry->d_name);
            }
        }
        ::closedir(listing);
    }
    std::printf("\n");
    std::fflush(stdout);
    if (argc > 1 && std::strncmp(argv[argc - 1], "stay:", 5) == 0) {
        if (FILE* file = std::fopen(argv[argc - 1] + 5, "w")) {
            std::fprintf(file, "%d\n", int(::getpid()));
            std::fclose(file);
        }
        for (;;) {
            ::pause();
        }
    }
    return 0;
}
