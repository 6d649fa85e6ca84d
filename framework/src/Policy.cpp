#include "framework/Policy.h"

#include <json/json.h>

#include "framework/Engine.h"
#include "sdk/JsonUtils.h"
#include "sdk/LogStatement.h"

namespace Framework {

namespace {
// Longest start delay a task condition may ask for: an hour; anything longer is a typo.
constexpr int kMaxStartDelaySeconds = 3600;
}  // namespace

Policy::Policy(const std::string& name) : m_name(name), m_replaced(false) {}

Policy::~Policy() = default;

void Policy::Dispatch(Policy*) {}

bool Policy::PolicyChanged(const std::string& name, const std::string&) {
    return name != m_name;
}

CompositePolicy::CompositePolicy(const std::string& name) : Policy(name) {}

CompositePolicy::~CompositePolicy() {
    for (auto it = m_children.rbegin(); it != m_children.rend(); ++it) {
        delete *it;
    }
}

void CompositePolicy::Add(Policy* child) {
    if (child != nullptr) {
        m_children.push_back(child);
    }
}

Policy* CompositePolicy::FindChild(const std::string& name) const {
    for (Policy* child : m_children) {
        if (child->GetName() == name) {
            return child;
        }
    }
    return nullptr;
}

void CompositePolicy::Dispatch(Policy*) {
    for (Policy* child : m_children) {
        child->Dispatch(this);
    }
}

FeaturePolicy::FeaturePolicy(const std::string& name) : CompositePolicy(name), m_enabled(true) {}

FeaturePolicy::~FeaturePolicy() = default;

void FeaturePolicy::Dispatch(Policy* parent) {
    CompositePolicy::Dispatch(parent);
}

bool FeaturePolicy::PolicyChanged(const std::string& name, const std::string& hash) {
    return name != m_name || hash != m_hash;
}

TaskPolicy::TaskPolicy(const std::string& name) : Policy(name) {}

TaskPolicy::~TaskPolicy() = default;

void TaskPolicy::Dispatch(Policy* parent) {
    Engine* engine = Engine::Instance();
    if (engine != nullptr) {
        engine->HandOverTaskPolicy(this, parent);
    }
}

bool TaskPolicy::ParseCondition(const std::string& text) {
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(text.c_str(), text.size(), root) != SDK::JsonUtils::kParseOk) {
        SDK_ROOT_LOG(Poco::Message::PRIO_ERROR,
                     "[Framework] task_condition of (%s) rejected: not a JSON object", m_name);
        return false;
    }
    TaskCondition condition;
    for (const std::string& key : root.getMemberNames()) {
        const Json::Value& value = root[key];
        if (key != "start_delay_s") {
            SDK_ROOT_LOG(Poco::Message::PRIO_ERROR,
                         "[Framework] task_condition of (%s) rejected: unknown key (%s)", m_name, key);
            return false;
        }
        // Integers only: 5.0 or "5" are as wrong as a bool here.
        const bool integral = value.type() == Json::intValue || value.type() == Json::uintValue;
        if (!integral || !value.isInt() || value.asInt() < 0 || value.asInt() > kMaxStartDelaySeconds) {
            SDK_ROOT_LOG(
                Poco::Message::PRIO_ERROR,
                "[Framework] task_condition of (%s) rejected: start_delay_s must be an integer 0..%d", m_name,
                kMaxStartDelaySeconds);
            return false;
        }
        condition.startDelaySeconds = value.asInt();
    }
    m_condition = condition;
    return true;
}

}  // namespace Framework
