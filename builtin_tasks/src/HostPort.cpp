#include "builtin_tasks/HostPort.h"

namespace Engine {

bool ParseHostPort(const std::string& text, std::string& host, unsigned short& port) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) {
        return false;
    }
    const std::string digits = text.substr(colon + 1);
    if (digits.empty() || digits.size() > 5 || digits.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    const long number = std::stol(digits);
    if (number < 1 || number > 65535) {
        return false;
    }
    std::string name = text.substr(0, colon);
    if (name.size() > 2 && name.front() == '[' && name.back() == ']') {
        name = name.substr(1, name.size() - 2);
    }
    host = name;
    port = static_cast<unsigned short>(number);
    return true;
}

}  // namespace Engine
