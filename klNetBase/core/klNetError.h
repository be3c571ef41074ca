// klNetError: the exception every failure of the library is reported with.
//
// The message is a ready-made text. Texts assembled from pieces are built in a string stream and
// passed as the stream:
//
//   throw klNetError(std::ostringstream() << "send error. " << klNetError::getLastErrorString());
//
// Two subclasses mark the conditions callers treat specially: klConnectionClosed (the peer has
// gone) and klConnectionTimeout (a receive ran into its time-out).
#pragma once

#include <klNetBase/klNetBaseExport.h>

#include <ostream>
#include <stdexcept>
#include <string>

class KLNETBASE_EXPORT klNetError : public std::runtime_error {
public:
    explicit klNetError(const std::string& message);
    // Takes the text accumulated so far in a string stream (std::ostringstream or
    // std::stringstream); any other stream gives an empty message.
    explicit klNetError(const std::ostream& text);

    // "number:text" for the calling thread's last system error (errno); empty when it is 0.
    static std::string getLastErrorString();
    // "number:text" for the given error number; the number is printed as an unsigned 32-bit
    // value, and a number without a system text gives the number and the colon alone. Empty for 0.
    static std::string getErrorString(int code);
};
