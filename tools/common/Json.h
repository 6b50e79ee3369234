// A minimal JSON writer for the tools' machine-readable output.
#ifndef KORVANE_TOOLS_JSON_H
#define KORVANE_TOOLS_JSON_H

#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace korvane_tools {

class JsonWriter {
public:
    JsonWriter& beginObject() { return open('{'); }
    JsonWriter& endObject() { return close('}'); }
    JsonWriter& beginArray() { return open('['); }
    JsonWriter& endArray() { return close(']'); }

    JsonWriter& key(const std::string& name) {
        string(name);
        m_text += ':';
        m_afterKey = true;
        return *this;
    }
    JsonWriter& string(const std::string& value) {
        separate();
        m_text += '"';
        for (unsigned char c : value) {
            if (c == '"' || c == '\\') {
                m_text += '\\';
                m_text += static_cast<char>(c);
            } else if (c < 0x20) {
                char escaped[8];
                std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
                m_text += escaped;
            } else {
                m_text += static_cast<char>(c);
            }
        }
        m_text += '"';
        return *this;
    }
    JsonWriter& number(uint64_t value) { return raw(std::to_string(value)); }
    JsonWriter& boolean(bool value) { return raw(value ? "true" : "false"); }
    JsonWriter& pidArray(const std::vector<pid_t>& pids) {
        beginArray();
        for (pid_t pid : pids)
            raw(std::to_string(pid));
        return endArray();
    }
    JsonWriter& stringArray(const std::vector<std::string>& values) {
        beginArray();
        for (const std::string& value : values)
            string(value);
        return endArray();
    }

    const std::string& text() const { return m_text; }

private:
    // A comma goes before every value that is not first in its container and
    // does not follow a key.
    void separate() {
        if (m_afterKey) {
            m_afterKey = false;
        } else if (!m_text.empty() && m_text.back() != '{' && m_text.back() != '[') {
            m_text += ',';
        }
    }
    JsonWriter& open(char bracket) {
        separate();
        m_text += bracket;
        return *this;
    }
    JsonWriter& close(char bracket) {
        m_text += bracket;
        return *this;
    }
    JsonWriter& raw(const std::string& value) {
        separate();
        m_text += value;
        return *this;
    }

    std::string m_text;
    bool m_afterKey = false;
};

} // namespace korvane_tools

#endif
