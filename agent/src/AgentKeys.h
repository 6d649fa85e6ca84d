#pragma once

#include <string>
#include <vector>

namespace HostAgent {

// What a config key holds.
enum class KeyKind {
    Object,   // a JSON object of the keys below it
    List,     // a JSON array
    Text,     // a non-empty string
    Path,     // a non-empty string, a file path (relative to the config file's folder)
    Flag,     // true or false
    Integer,  // a whole number in [low, high]
    Choice,   // one of the strings in `choices`
};

// One key of the agent's config file. The table of these is the one place that names the keys:
// the reader validates against it, unknown keys are what it lacks, and --help, README and the man
// page list it (a test holds them to it).
struct AgentKey {
    const char* name;  // dotted path from the top: "supervisor.restart_delay_s";
                       // "report.sinks[]" is an element of the sink list
    KeyKind kind;
    const char* defaultText;  // the default as written for people; "" when the key has none
    long long low;            // Integer: the smallest value allowed
    long long high;           // Integer: the largest value allowed
    const char* choices;      // Choice: the allowed strings, separated by "|"
    const char* sinkTypes;    // a key of a sink: the sink types that take it, "|"-separated
    const char* help;         // one line
};

// Every key, parents before their children, in the order --help lists them.
const std::vector<AgentKey>& AgentKeys();

// The key called `name`; throws std::logic_error for a name the table lacks (a programming error).
const AgentKey& Key(const std::string& name);

// The names of the keys right below `parent` ("" for the top level) without the parent's prefix;
// for a sink list element only the keys a sink of `sinkType` takes.
std::vector<std::string> ChildKeys(const std::string& parent, const std::string& sinkType = "");

// True when `key` is a Choice and `value` one of its strings.
bool IsChoiceOf(const AgentKey& key, const std::string& value);

// "an integer 1..86400", "\"udp\" or \"tcp\"": what a value of `key` must be, for messages.
std::string KeyRangeText(const AgentKey& key);

// The key list of --help: one line per key with its range and default, then its help.
std::string KeyHelpText();

}  // namespace HostAgent
