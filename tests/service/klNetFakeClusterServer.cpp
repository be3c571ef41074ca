// Stand-in for the render server in the launcher's tests, built as "KALDClusterServer" beside the
// test program. It prints how it was started, one line each:
//
//   arg <argument>        every argument, the program path first
//   env <value>           KALD_LOCAL_SERVICE, or "-" when unset
//   fds <n> <n> ...       its open descriptors, without the one it lists them with
//   pid <process id>      only when the last argument is "stay"
//
// and ends, or with the last argument "stay" waits until a signal ends it.
#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        std::printf(
            "usage: KALDClusterServer [argument...] [stay]\n"
            "Test stand-in: prints its arguments, KALD_LOCAL_SERVICE and open "
            "descriptors; \"stay\" last waits for a signal.\n");
        return 0;
    }
    std::set<int> descriptors;
    if (DIR* listing = ::opendir("/proc/self/fd")) {
        while (const dirent* entry = ::readdir(listing)) {
            if (entry->d_name[0] != '.' && std::atoi(entry->d_name) != ::dirfd(listing)) {
                descriptors.insert(std::atoi(entry->d_name));
            }
        }
        ::closedir(listing);
    }
    for (int i = 0; i < argc; ++i) {
        std::printf("arg %s\n", argv[i]);
    }
    const char* pipeName = std::getenv("KALD_LOCAL_SERVICE");
    std::printf("env %s\nfds", pipeName != nullptr ? pipeName : "-");
    for (int fd : descriptors) {
        std::printf(" %d", fd);
    }
    std::printf("\n");
    const bool stay = argc > 1 && std::strcmp(argv[argc - 1], "stay") == 0;
    if (stay) {
        std::printf("pid %d\n", int(::getpid()));
    }
    std::fflush(stdout);
    while (stay) {
        ::pause();
    }
    return 0;
}
