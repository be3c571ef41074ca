// klNetCipherBase: the application's cipher, through which a link passes every buffer.
//
// Both operations transform length bytes from source to destination and must produce exactly as
// many bytes as they consume; source and destination may be the same memory (deciphering runs in
// place). A link calls encrypt on its sending thread and decrypt on its receiving thread, possibly
// at the same time, so the two must be safe to run concurrently.
//
// Always held by std::shared_ptr, which destroys the cipher through its own type.
#pragma once

#include <klNetBase/klNetBaseExport.h>

#include <cstdint>

class KLNETBASE_EXPORT klNetCipherBase {
public:
    virtual void encrypt(void* destination, const void* source, std::uint64_t length) = 0;
    virtual void decrypt(void* destination, const void* source, std::uint64_t length) = 0;

protected:
    ~klNetCipherBase() = default;
};
