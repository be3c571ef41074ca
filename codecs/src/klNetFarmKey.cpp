#include <klNetBase/codecs/klNetFarmKey.h>

#include <klNetBase/core/klNetError.h>

#include <sodium.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>

namespace {

[[noreturn]] void fail(const std::string& path, const std::string& what) {
    throw klNetError("Key file '" + path + "' " + what);
}

// Refuses what ssh refuses for a private key: anything but a regular file, a file of another
// user than the one running the program (root's are fine: root could read it anyway), and a
// mode looser than 0600, named by the first bit too many (a key is data: not even its owner
// executes it).
void checkFile(const std::string& path, const struct stat& status) {
    if (!S_ISREG(status.st_mode)) {
        fail(path, "is not a regular file");
    }
    if (status.st_uid != ::geteuid() && status.st_uid != 0) {
        fail(path, "is owned by uid " + std::to_string(status.st_uid));
    }
    static const struct {
        mode_t bit;
        const char* what;
    } kLoose[] = {{S_ISUID | S_ISGID | S_ISVTX, "has a special bit set"},
                  {S_IXUSR, "is executable"},
                  {S_IRGRP, "is readable by group"},
                  {S_IWGRP, "is writable by group"},
                  {S_IXGRP, "is group-executable"},
                  {S_IROTH, "is readable by others"},
                  {S_IWOTH, "is writable by others"},
                  {S_IXOTH, "is executable by others"}};
    for (const auto& loose : kLoose) {
        if ((status.st_mode & loose.bit) != 0) {
            char mode[8];
            std::snprintf(mode, sizeof(mode), "%04o", unsigned(status.st_mode & 07777));
            fail(path, std::string(loose.what) + " (mode " + mode + "): chmod 600 it");
        }
    }
}

// Closes the descriptor it was given.
struct FileCloser {
    int fd;
    ~FileCloser() { ::close(fd); }
};

}  // namespace

void klNetFarmKey::generate(const std::string& path) {
    if (sodium_init() < 0) {
        throw klNetError("Unable to initialise libsodium");
    }
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        fail(path, errno == EEXIST ? "exists already"
                                   : "cannot be created: " + klNetError::getLastErrorString());
    }
    const FileCloser closer{fd};
    std::array<std::uint8_t, kSize> bytes;
    randombytes_buf(bytes.data(), bytes.size());
    const bool written =
        ::write(fd, bytes.data(), bytes.size()) == ssize_t(bytes.size()) && ::fsync(fd) == 0;
    sodium_memzero(bytes.data(), bytes.size());
    if (!written) {
        const std::string text = klNetError::getLastErrorString();
        ::unlink(path.c_str());
        fail(path, "cannot be written: " + text);
    }
}

klNetFarmKey klNetFarmKey::load(const std::string& path) {
    // Checked by name first, so that a FIFO or a device is never opened; then again on the
    // descriptor, which is what is read (the name may have changed in between). Non-blocking, so
    // that not even a FIFO put there in between can hold the program.
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        fail(path, "cannot be read: " + klNetError::getLastErrorString());
    }
    checkFile(path, status);
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        fail(path, "cannot be read: " + klNetError::getLastErrorString());
    }
    const FileCloser closer{fd};
    if (::fstat(fd, &status) != 0) {
        fail(path, "cannot be read: " + klNetError::getLastErrorString());
    }
    checkFile(path, status);
    std::array<std::uint8_t, kSize + 1> bytes{};
    const ssize_t n = ::read(fd, bytes.data(), bytes.size());
    if (n != ssize_t(kSize)) {
        sodium_memzero(bytes.data(), bytes.size());
        fail(path, "does not hold a key of 32 bytes");
    }
    std::array<std::uint8_t, kSize> key;
    std::copy_n(bytes.begin(), kSize, key.begin());
    sodium_memzero(bytes.data(), bytes.size());
    klNetFarmKey result(key);
    sodium_memzero(key.data(), key.size());
    return result;
}

klNetFarmKey klNetFarmKey::readFrom(int fd, const std::string& name) {
    std::array<std::uint8_t, kSize> bytes{};
    std::size_t got = 0;
    while (got < kSize) {
        const ssize_t n = ::read(fd, bytes.data() + got, kSize - got);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            const std::string text = n < 0 ? klNetError::getLastErrorString() : std::string();
            sodium_memzero(bytes.data(), bytes.size());
            throw klNetError(n < 0 ? name + " cannot be read: " + text
                                   : name + " ended before 32 bytes of key");
        }
        got += std::size_t(n);
    }
    klNetFarmKey result(bytes);
    sodium_memzero(bytes.data(), bytes.size());
    return result;
}

klNetFarmKey klNetFarmKey::random() {
    if (sodium_init() < 0) {
        throw klNetError("Unable to initialise libsodium");
    }
    std::array<std::uint8_t, kSize> bytes;
    randombytes_buf(bytes.data(), bytes.size());
    klNetFarmKey result(bytes);
    sodium_memzero(bytes.data(), bytes.size());
    return result;
}

klNetFarmKey::~klNetFarmKey() {
    sodium_memzero(m_bytes.data(), m_bytes.size());
}
