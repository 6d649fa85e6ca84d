#pragma once

#include <string>

namespace Framework {

// A message between tasks. Ownership passes with the message: whoever accepts it deletes it.
class Message {
public:
    explicit Message(const std::string& type) : m_type(type) {}
    virtual ~Message() = default;

    // What the message carries; for data messages "2" is an alarm event.
    const std::string& GetType() const { return m_type; }

private:
    std::string m_type;
};

// A message with a text body (a JSON document for alarm events).
class DataMessage : public Message {
public:
    DataMessage(const std::string& type, const std::string& body) : Message(type), m_body(body) {}

    const std::string& GetBody() const { return m_body; }

private:
    std::string m_body;
};

}  // namespace Framework
