#pragma once

#include <string>

namespace SDK {

class CryptoCodeUtils {
public:
    // A random version-4 UUID in its 36-character lowercase text form.
    static std::string GenerateUUID();
};

}  // namespace SDK
