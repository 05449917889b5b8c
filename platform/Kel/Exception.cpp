#include "Kel/Exception.h"

#include <cstring>

namespace Kel {

ErrnoException::ErrnoException(int errnoValue, const String& what)
    : Exception(fmt::format("{}: {} (errno {})", what, std::strerror(errnoValue), errnoValue)),
      errno_(errnoValue) {}

}  // namespace Kel
