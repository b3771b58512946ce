#ifndef NK_TOOLS_FLEET_TOPICS_H
#define NK_TOOLS_FLEET_TOPICS_H

#include <string>

// The broker topics of one fleet: <prefix>/<fleet>/<address>/{down,up,online}, the address in
// decimal. down carries frame bytes from the station to a panel, up from a panel to the
// station, online the panel's retained presence flag ("1", or "0" from its last will).
struct FleetTopics
{
    enum Kind
    {
        NONE,
        DOWN,
        UP,
        ONLINE,
    };

    std::string prefix = "nk";
    std::string fleet;

    std::string down(unsigned int address) const { return base(address) + "/down"; }
    std::string up(unsigned int address) const { return base(address) + "/up"; }
    std::string online(unsigned int address) const { return base(address) + "/online"; }
    std::string allUp() const { return prefix + "/" + fleet + "/+/up"; }
    std::string allOnline() const { return prefix + "/" + fleet + "/+/online"; }

    // The kind of a topic of this fleet and the address in it; NONE for any other topic, an
    // address that is not plain decimal, or one beyond the protocol's range.
    Kind parse(std::string const& topic, unsigned int& address) const;

private:
    std::string base(unsigned int address) const { return prefix + "/" + fleet + "/" + std::to_string(address); }
};

// A fleet name or topic prefix must be one non-empty topic level without wildcards.
bool isTopicLevel(std::string const& text);

struct MqttUrl
{
    std::string host;
    unsigned short port = 1883;
    bool tls = false;  // mqtts://, port 8883 unless given
};

// Parses mqtt://HOST[:PORT] or mqtts://HOST[:PORT] (the scheme may be left out: mqtt). Throws
// ToolError naming the text.
MqttUrl parseMqttUrl(std::string const& text);

#endif
