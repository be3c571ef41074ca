// The handle type of every socket the library holds: a file descriptor, -1 when there is none.
#pragma once

using klSocketHandle = int;
constexpr klSocketHandle klInvalidSocket = -1;
