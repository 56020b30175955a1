#pragma once
// user_msg_list: the operator's message log. Messages are appended with CR LF; the log can
// be trimmed to its last characters (job streaming keeps it short). A listener sees every
// appended message, so the GUI can show it and the CLI can print it.

#include <functional>
#include <string>
#include <string_view>

namespace veltrin {

class MessageLog {
public:
    using Listener = std::function<void(std::string_view message)>;

    // Appends message + CR LF.
    void append(std::string_view message);
    // Appends text as it stands (received bytes shown as they came).
    void appendRaw(std::string_view text);
    // Keeps only the last maxChars characters.
    void trimTo(std::size_t maxChars);
    void clear() { m_text.clear(); }

    const std::string& text() const { return m_text; }
    void setListener(Listener listener) { m_listener = std::move(listener); }

private:
    std::string m_text;
    Listener m_listener;
};

}  // namespace veltrin
