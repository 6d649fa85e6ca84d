#include "sdk/StrUtils.h"

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

namespace SDK {

std::vector<std::string> StrUtils::Split(const std::string& text, const std::string& separators) {
    std::vector<std::string> pieces;
    // token_compress_off keeps the empty pieces between adjacent separators.
    boost::algorithm::split(pieces, text, boost::is_any_of(separators), boost::algorithm::token_compress_off);
    return pieces;
}

}  // namespace SDK
