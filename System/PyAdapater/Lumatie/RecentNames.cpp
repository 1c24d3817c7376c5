#include "RecentNames.h"

bool RecentNames::add(std::time_t now, const std::string& name)
{
    if (!m_names.insert(name).second) {
        return false;
    }
    m_order.emplace_back(now, name);
    while (m_order.size() > kKept && m_order.front().first != now) {
        m_names.erase(m_order.front().second);
        m_order.pop_front();
    }
    return true;
}
