#include "nk_messageDisplayConfiguration.h"

#include "displayIdSearch_internal.h"

using tLogicalDisplay = nk_messageGetDisplayConfigurationRsp::tLogicalDisplay;
using tDisplayConfiguration = nk_messageGetDisplayConfigurationRsp::tDisplayConfiguration;

namespace
{
bool currentBit(unsigned short idWord) { return (idWord & 0x8000) != 0; }
}

nk_messageGetDisplayConfigurationRsp::nk_messageGetDisplayConfigurationRsp(teVersion v)
    : nk_message(GET_DISPLAY_CONFIGURATION_RSP, v)
{
}

nk_messageGetDisplayConfigurationRsp::nk_messageGetDisplayConfigurationRsp(nk_serializer* ser, teVersion v)
    : nk_message(GET_DISPLAY_CONFIGURATION_RSP, v)
{
    serialize(ser, nk_serializer::SER_READ);
}

nk_messageGetDisplayConfigurationRsp::~nk_messageGetDisplayConfigurationRsp() { clear(); }

void nk_messageGetDisplayConfigurationRsp::set(tString const& name, signed char rot)
{
    m_name = name;
    m_rot = rot;
}

tDisplayConfiguration* nk_messageGetDisplayConfigurationRsp::addDisplayConfiguration(tString const& name,
                                                                                     unsigned short id, bool current)
{
    m_displayConfigurations.push_back(new tDisplayConfiguration(name, id, current));
    return m_displayConfigurations.back();
}

tDisplayConfiguration* nk_messageGetDisplayConfigurationRsp::getDisplayConfiguration(unsigned short index)
{
    return index < m_displayConfigurations.size() ? m_displayConfigurations[index] : nullptr;
}

tDisplayConfiguration* nk_messageGetDisplayConfigurationRsp::getDisplayConfigurationById(unsigned short id)
{
    return firstRecordWithId<tDisplayConfiguration>([this](unsigned short i) { return getDisplayConfiguration(i); }, id);
}

void nk_messageGetDisplayConfigurationRsp::clear()
{
    for (tDisplayConfiguration* config : m_displayConfigurations) delete config;
    m_displayConfigurations.clear();
}

bool nk_messageGetDisplayConfigurationRsp::serialize(nk_serializer* ser, nk_serializer::teSerDirection dir)
{
    if (ser == nullptr) return false;
    bool const reading = dir == nk_serializer::SER_READ;
    unsigned short count = static_cast<unsigned short>(m_displayConfigurations.size());
    if (!ser->u16(count, dir) || !ser->string(m_name, dir) || !ser->i8(m_rot, dir)) return false;
    if (reading) clear();

    for (unsigned short i = 0; i < count; ++i) {
        tDisplayConfiguration* config = nullptr;
        tString name;
        unsigned short idWord = 0;
        unsigned short displays = 0;
        if (!reading) {
            config = getDisplayConfiguration(i);
            if (config == nullptr) return false;
            name = config->name();
            idWord = config->idWord();
            displays = config->logicalDisplayCount();
        }
        if (!ser->string(name, dir) || !ser->u16(idWord, dir) || !ser->u16(displays, dir)) return false;
        if (reading) {
            config = addDisplayConfiguration(name, idWord, currentBit(idWord));
            config->clear();
        }
        if (!serializeLogicalDisplays(ser, dir, config, displays)) return false;
    }
    return true;
}

bool nk_messageGetDisplayConfigurationRsp::serializeLogicalDisplays(nk_serializer* ser,
                                                                    nk_serializer::teSerDirection dir,
                                                                    tDisplayConfiguration* config,
                                                                    unsigned short count)
{
    bool const reading = dir == nk_serializer::SER_READ;
    bool const withPosition = version() > VERSION_0;
    for (unsigned short i = 0; i < count; ++i) {
        tString name;
        unsigned short idWord = 0, pixelX = 0, pixelY = 0, left = 0, top = 0;
        if (!reading) {
            tLogicalDisplay* display = config->getLogicalDisplay(i);
            if (display == nullptr) return false;
            name = display->name();
            idWord = display->idWord();
            pixelX = display->pixelX();
            pixelY = display->pixelY();
            left = display->left();
            top = display->top();
        }
        if (!ser->string(name, dir) || !ser->u16(idWord, dir) || !ser->u16(pixelX, dir) || !ser->u16(pixelY, dir))
            return false;
        if (withPosition && (!ser->u16(left, dir) || !ser->u16(top, dir))) return false;
        if (reading) config->addLogicalDisplay(name, idWord, pixelX, pixelY, currentBit(idWord), left, top);
    }
    return true;
}

bool nk_messageGetDisplayConfigurationRsp::serializeToJson(tJson* json)
{
    if (json == nullptr) return false;
    jsonEnvelope(json, "displayConfig", true);
    json->addString("name", m_name);
    json->addInt("rot", m_rot);
    for (tDisplayConfiguration* config : m_displayConfigurations) {
        if (config == nullptr) continue;
        tJson configJson;
        configJson.addString("name", config->name());
        configJson.addInt("id", config->idWord());
        for (unsigned short i = 0; i < config->logicalDisplayCount(); ++i) {
            tLogicalDisplay* display = config->getLogicalDisplay(i);
            if (display == nullptr) continue;
            tJson displayJson;
            displayJson.addString("name", display->name());
            displayJson.addInt("id", display->idWord());
            displayJson.addInt("w", display->pixelX());
            displayJson.addInt("h", display->pixelY());
            displayJson.addInt("l", display->left());
            displayJson.addInt("t", display->top());
            configJson.addToArray("logDisps", displayJson);
        }
        json->addToArray("dispConfigs", configJson);
    }
    return true;
}

bool nk_messageGetDisplayConfigurationRsp::serializeFromJson(tJson* json)
{
    if (!jsonEnvelopeMatches(json, "displayConfig", true)) return false;
    clear();
    m_name = json->getString("name");
    m_rot = static_cast<signed char>(json->getInt("rot", m_rot));

    tJson configJson;
    for (unsigned int i = 0; json->getArrayObject("dispConfigs", i, configJson); ++i) {
        unsigned short idWord = static_cast<unsigned short>(configJson.getInt("id", 0));
        tDisplayConfiguration* config =
            addDisplayConfiguration(configJson.getString("name"), idWord, currentBit(idWord));
        config->clear();
        tJson displayJson;
        for (unsigned int j = 0; configJson.getArrayObject("logDisps", j, displayJson); ++j) {
            unsigned short displayId = static_cast<unsigned short>(displayJson.getInt("id", 0));
            config->addLogicalDisplay(displayJson.getString("name"), displayId,
                                      static_cast<unsigned short>(displayJson.getInt("w", 0)),
                                      static_cast<unsigned short>(displayJson.getInt("h", 0)),
                                      currentBit(displayId),
                                      static_cast<unsigned short>(displayJson.getInt("l", 0)),
                                      static_cast<unsigned short>(displayJson.getInt("t", 0)));
        }
    }
    return true;
}
