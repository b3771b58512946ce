#ifndef NK_MESSAGEDISPLAYCONFIGURATION_H
#define NK_MESSAGEDISPLAYCONFIGURATION_H

#include <vector>

#include "nk_message.h"

// GET_DISPLAY_CONFIGURATION_REQ (7): asks a device how its screen is laid out. Empty body.
class NK_API nk_messageGetDisplayConfigurationReq : public nk_message
{
public:
    explicit nk_messageGetDisplayConfigurationReq(teVersion v);
    nk_messageGetDisplayConfigurationReq(nk_serializer* ser, teVersion v);
    ~nk_messageGetDisplayConfigurationReq() override = default;

    bool serialize(nk_serializer* ser, nk_serializer::teSerDirection dir) override;
    bool serializeToJson(tJson* json) override;
    bool serializeFromJson(tJson* json) override;
};

// GET_DISPLAY_CONFIGURATION_RSP (8): the display's name and rotation and the display
// configurations it knows, each dividing the screen into logical displays.
//
// Id word: records keep their id (bits 0 to 14) and their "current" mark (bit 15) in one
// 16-bit word, and both the binary and the JSON form carry the whole word. This packing is
// deliberate and shared with deployed peers; it also means that a search by id with bit 15
// set never matches anything.
class NK_API nk_messageGetDisplayConfigurationRsp : public nk_message
{
public:
    class NK_API tLogicalDisplay
    {
    public:
        // A false current does not clear bit 15 of id: an id of 32768 or more stays current.
        tLogicalDisplay(tString const& name, unsigned short id, unsigned short pixelX, unsigned short pixelY,
                        bool current, unsigned short left, unsigned short top);
        ~tLogicalDisplay() = default;

        tString const& name() const { return m_name; }
        unsigned short id() const { return m_idWord & 0x7FFF; }
        bool isCurrent() const { return (m_idWord & 0x8000) != 0; }
        unsigned short idWord() const { return m_idWord; }
        unsigned short pixelX() const { return m_pixelX; }
        unsigned short pixelY() const { return m_pixelY; }
        unsigned short left() const { return m_left; }
        unsigned short top() const { return m_top; }

    private:
        tString m_name;
        unsigned short m_idWord;
        unsigned short m_pixelX;
        unsigned short m_pixelY;
        unsigned short m_left;
        unsigned short m_top;
    };

    class NK_API tDisplayConfiguration
    {
    public:
        tDisplayConfiguration(tString const& name, unsigned short id, bool current);
        ~tDisplayConfiguration();
        tDisplayConfiguration(tDisplayConfiguration const&) = delete;
        tDisplayConfiguration& operator=(tDisplayConfiguration const&) = delete;

        tString const& name() const { return m_name; }
        unsigned short id() const { return m_idWord & 0x7FFF; }
        bool isCurrent() const { return (m_idWord & 0x8000) != 0; }
        unsigned short idWord() const { return m_idWord; }

        void clear();
        // Appends a new record (no test for an existing id) and returns it.
        tLogicalDisplay* addLogicalDisplay(tString const& name, unsigned short id, unsigned short pixelX,
                                           unsigned short pixelY, bool current, unsigned short left,
                                           unsigned short top);
        // Null when index is past the end.
        tLogicalDisplay* getLogicalDisplay(unsigned short index);
        // The first record whose 15-bit id equals id.
        tLogicalDisplay* getLogicalDisplayById(unsigned short id);
        unsigned short logicalDisplayCount() const { return static_cast<unsigned short>(m_logicalDisplays.size()); }

    private:
        tString m_name;
        unsigned short m_idWord;
        std::vector<tLogicalDisplay*> m_logicalDisplays;  // owned
    };

    explicit nk_messageGetDisplayConfigurationRsp(teVersion v);
    nk_messageGetDisplayConfigurationRsp(nk_serializer* ser, teVersion v);
    ~nk_messageGetDisplayConfigurationRsp() override;
    nk_messageGetDisplayConfigurationRsp(nk_messageGetDisplayConfigurationRsp const&) = delete;
    nk_messageGetDisplayConfigurationRsp& operator=(nk_messageGetDisplayConfigurationRsp const&) = delete;

    void set(tString const& name, signed char rot);
    tString const& name() const { return m_name; }
    signed char rot() const { return m_rot; }

    tDisplayConfiguration* addDisplayConfiguration(tString const& name, unsigned short id, bool current);
    // Null when index is past the end.
    tDisplayConfiguration* getDisplayConfiguration(unsigned short index);
    // The first configuration whose 15-bit id equals id.
    tDisplayConfiguration* getDisplayConfigurationById(unsigned short id);
    unsigned short displayConfigurationCount() const
    {
        return static_cast<unsigned short>(m_displayConfigurations.size());
    }
    void clear();

    bool serialize(nk_serializer* ser, nk_serializer::teSerDirection dir) override;
    bool serializeToJson(tJson* json) override;
    bool serializeFromJson(tJson* json) override;

private:
    bool serializeLogicalDisplays(nk_serializer* ser, nk_serializer::teSerDirection dir, tDisplayConfiguration* config,
                                  unsigned short count);

    tString m_name;
    signed char m_rot = 0;
    std::vector<tDisplayConfiguration*> m_displayConfigurations;  // owned
};

#endif
