#pragma once

#include <string>

namespace HostAgent {

// Reads the policy file `path` whole into `text`. False, with `error` saying why (without the
// file's name), when it cannot be read, is too large to be a policy, or could be changed by another
// user (CheckFileSafety).
bool ReadPolicyFile(const std::string& path, std::string& text, std::string& error);

// True when `text` is one JSON object; otherwise `error` says what is wrong with it.
bool CheckPolicyText(const std::string& text, std::string& error);

}  // namespace HostAgent
