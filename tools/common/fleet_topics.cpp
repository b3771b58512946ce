#include "fleet_topics.h"

#include "endpoint.h"
#include "tool_error.h"

FleetTopics::Kind FleetTopics::parse(std::string const& topic, unsigned int& address) const
{
    const std::string head = prefix + "/" + fleet + "/";
    if (topic.compare(0, head.size(), head) != 0) return NONE;
    const std::size_t slash = topic.find('/', head.size());
    if (slash == std::string::npos) return NONE;
    const std::string digits = topic.substr(head.size(), slash - head.size());
    if (digits.empty() || digits.size() > 10 || digits.find_first_not_of("0123456789") != std::string::npos ||
        (digits.size() > 1 && digits[0] == '0'))
        return NONE;
    const unsigned long long value = std::stoull(digits);
    if (value > 0xFFFFFFFDull) return NONE;
    const std::string kind = topic.substr(slash + 1);
    Kind result = NONE;
    if (kind == "down") result = DOWN;
    else if (kind == "up") result = UP;
    else if (kind == "online") result = ONLINE;
    if (result != NONE) address = static_cast<unsigned int>(value);
    return result;
}

bool isTopicLevel(std::string const& text)
{
    return !text.empty() && text.find_first_of("/+#") == std::string::npos && text.find('\0') == std::string::npos;
}

MqttUrl parseMqttUrl(std::string const& text)
{
    std::string rest = text;
    MqttUrl url;
    const std::string scheme = "mqtt://";
    const std::string secure = "mqtts://";
    if (rest.compare(0, scheme.size(), scheme) == 0) {
        rest = rest.substr(scheme.size());
    } else if (rest.compare(0, secure.size(), secure) == 0) {
        rest = rest.substr(secure.size());
        url.tls = true;
        url.port = 8883;
    } else if (rest.find("://") != std::string::npos) {
        throw ToolError("broker URL " + text + " is not mqtt://HOST[:PORT] or mqtts://HOST[:PORT]", EXIT_USAGE);
    }
    while (!rest.empty() && rest.back() == '/') rest.pop_back();
    if (rest.empty()) throw ToolError("broker URL " + text + " names no host", EXIT_USAGE);
    if (rest.find(':') == std::string::npos || (rest.front() == '[' && rest.back() == ']')) {
        url.host = rest;
        if (url.host.front() == '[') url.host = url.host.substr(1, url.host.size() - 2);
        return url;
    }
    const Endpoint ep = parseEndpoint(rest, "127.0.0.1");
    if (ep.port == 0) throw ToolError("broker URL " + text + " has port 0", EXIT_USAGE);
    url.host = ep.host;
    url.port = ep.port;
    return url;
}
