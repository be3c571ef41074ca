// klNetFarmKey: the secret a render farm's services and clients share: 32 random bytes in a
// file that only its owner may read.
//
// Made once with generate() (klnetctl keygen), copied to every node and client, and loaded by
// every program that talks to the farm. The bytes are wiped when the key goes.
//
// Thread safety: a loaded key is read-only and may be shared by any number of threads.
#pragma once

#include <klNetBase/codecs/klNetCodecsExport.h>

#include <array>
#include <cstdint>
#include <string>

class KLNETCODECS_EXPORT klNetFarmKey {
public:
    static constexpr std::size_t kSize = 32;

    // Writes a new key of random bytes to path, created with mode 0600. An existing file is
    // never overwritten: "Key file '<path>' exists already". Other failures name the file and
    // the system's text.
    static void generate(const std::string& path);
    // Reads the key at path (a symbolic link is followed), checked as ssh checks a private key,
    // without blocking and without opening a FIFO or a device: "Key file '<path>' is not a
    // regular file", "... is owned by uid 65534" (neither the user running the program nor
    // root), a mode looser than 0600 by its first bit too many: "... is group-executable (mode
    // 0610): chmod 600 it" ("is executable", "is readable by group", "is writable by others",
    // ...); one of another size: "... does not hold a key of 32 bytes".
    static klNetFarmKey load(const std::string& path);
    // Reads a key of exactly 32 bytes from an open descriptor (a pipe on standard input, so that
    // the key is never in a file, on a command line or in the environment) and not one byte more:
    // what follows is left for other readers. Blocks until the bytes are there. Failures name the
    // source: "<name> ended before 32 bytes of key", "<name> cannot be read: <system text>".
    static klNetFarmKey readFrom(int fd, const std::string& name);
    // A new key of random bytes, for a service and its clients of one run.
    static klNetFarmKey random();
    // A key from its bytes (tests, and keys kept elsewhere).
    explicit klNetFarmKey(const std::array<std::uint8_t, kSize>& bytes) : m_bytes(bytes) {}
    ~klNetFarmKey();
    klNetFarmKey(const klNetFarmKey&) = default;
    klNetFarmKey& operator=(const klNetFarmKey&) = default;

    const std::uint8_t* data() const { return m_bytes.data(); }

private:
    std::array<std::uint8_t, kSize> m_bytes;
};
