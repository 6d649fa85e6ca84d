#include "sdk/CryptoCodeUtils.h"

#include <Poco/UUID.h>
#include <Poco/UUIDGenerator.h>

namespace SDK {

std::string CryptoCodeUtils::GenerateUUID() {
    // createRandom gives version 4; toString writes lowercase hex in the 8-4-4-4-12 form.
    return Poco::UUIDGenerator::defaultGenerator().createRandom().toString();
}

}  // namespace SDK
