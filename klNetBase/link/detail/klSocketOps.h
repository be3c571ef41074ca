// Thin wrappers of the socket system calls the links use, in one place: each retries EINTR where
// that is the right thing and turns failures into klNetError with the caller's text followed by
// the system's "number:text". Internal to the library.
#pragma once

#include <klNetBase/link/klSocketHandle.h>

#include <poll.h>

namespace klSocketOps {

// setsockopt with a 4-byte integer value; failure throws failureText + the error text.
void setIntOption(klSocketHandle fd, int level, int name, int value, const char* failureText);

// poll on one descriptor, retried on EINTR with the time that is left. Returns the number of
// ready descriptors (0 or 1) and the returned events; failure throws "WSAPoll(...):" + text.
int pollOne(klSocketHandle fd, short events, int timeoutMs, short& revents);

// The pending error of the socket (SO_ERROR); failure throws "getsockopt(...)" + text.
int pendingError(klSocketHandle fd);

// Bytes waiting to be read; failure throws "ioctlsocket()".
int bytesAvailable(klSocketHandle fd);

}  // namespace klSocketOps
