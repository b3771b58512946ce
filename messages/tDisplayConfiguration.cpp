#include "nk_messageDisplayConfiguration.h"

#include "displayIdSearch_internal.h"

using tLogicalDisplay = nk_messageGetDisplayConfigurationRsp::tLogicalDisplay;
using tDisplayConfiguration = nk_messageGetDisplayConfigurationRsp::tDisplayConfiguration;

namespace
{
unsigned short idWordOf(unsigned short id, bool current)
{
    return current ? static_cast<unsigned short>(id | 0x8000) : id;
}
}

tLogicalDisplay::tLogicalDisplay(tString const& name, unsigned short id, unsigned short pixelX,
                                 unsigned short pixelY, bool current, unsigned short left, unsigned short top)
    : m_name(name), m_idWord(idWordOf(id, current)), m_pixelX(pixelX), m_pixelY(pixelY), m_left(left), m_top(top)
{
}

tDisplayConfiguration::tDisplayConfiguration(tString const& name, unsigned short id, bool current)
    : m_name(name), m_idWord(idWordOf(id, current))
{
}

tDisplayConfiguration::~tDisplayConfiguration() { clear(); }

void tDisplayConfiguration::clear()
{
    for (tLogicalDisplay* display : m_logicalDisplays) delete display;
    m_logicalDisplays.clear();
}

tLogicalDisplay* tDisplayConfiguration::addLogicalDisplay(tString const& name, unsigned short id,
                                                          unsigned short pixelX, unsigned short pixelY, bool current,
                                                          unsigned short left, unsigned short top)
{
    m_logicalDisplays.push_back(new tLogicalDisplay(name, id, pixelX, pixelY, current, left, top));
    return m_logicalDisplays.back();
}

tLogicalDisplay* tDisplayConfiguration::getLogicalDisplay(unsigned short index)
{
    return index < m_logicalDisplays.size() ? m_logicalDisplays[index] : nullptr;
}

tLogicalDisplay* tDisplayConfiguration::getLogicalDisplayById(unsigned short id)
{
    return firstRecordWithId<tLogicalDisplay>([this](unsigned short i) { return getLogicalDisplay(i); }, id);
}
