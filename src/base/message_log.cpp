#include "base/message_log.h"

namespace veltrin {

void MessageLog::append(std::string_view message)
{
    m_text.append(message);
    m_text.append("\r\n");
    if (m_listener)
        m_listener(message);
}

void MessageLog::appendRaw(std::string_view text)
{
    m_text.append(text);
    if (m_listener)
        m_listener(text);
}

void MessageLog::trimTo(std::size_t maxChars)
{
    if (m_text.size() > maxChars)
        m_text.erase(0, m_text.size() - maxChars);
}

}  // namespace veltrin
