// The rules around the TLS links that peers and operators depend on: which certificate names
// a panel, which first bytes are TLS, the broker URL's scheme, the option files. The links
// themselves are tested with real processes (tls_e2e.py).
#include <gtest/gtest.h>

#include "fleet_topics.h"
#include "tls.h"
#include "tool_error.h"

namespace
{
ExitCode codeOf(std::function<void()> const& action)
{
    try {
        action();
    } catch (ToolError const& e) {
        return e.code;
    }
    return EXIT_OK;
}
}

TEST(ToolsTls, APanelIsNamedByItsAddressAsInTheBrokerTopics)
{
    unsigned int address = 0;
    EXPECT_TRUE(namesPanel("1001", &address));
    EXPECT_EQ(address, 1001u);
    EXPECT_TRUE(namesPanel("0", &address));
    EXPECT_TRUE(namesPanel("4294967293", &address));
    EXPECT_EQ(address, 4294967293u);
    // Not addresses a panel can have, or not written as its topics write them.
    for (char const* name : {"", "nkstation", "007", "4294967294", "99999999999", "12a", "-1", " 12"})
        EXPECT_FALSE(namesPanel(name)) << name;
    EXPECT_EQ(certificateName(nullptr), "");

    // What a station that dialled panel 1 says of the certificate it was shown.
    EXPECT_EQ(panelNameMismatch("1", 1), "");
    EXPECT_EQ(panelNameMismatch("2", 1), "names panel 2, not panel 1");
    EXPECT_EQ(panelNameMismatch("01", 1), "names '01', not panel 1");
    EXPECT_EQ(panelNameMismatch("nkstation", 1), "names 'nkstation', not panel 1");
}

TEST(ToolsTls, TlsRecordsAreToldFromFrames)
{
    const unsigned char clientHello[] = {0x16, 0x03, 0x01, 0x02, 0x00};
    const unsigned char alert[] = {0x15, 0x03, 0x03, 0x00, 0x02};
    const unsigned char frame[] = {0x01, 0x16, 0x03, 0x01};
    const unsigned char otherRecord[] = {0x17, 0x03, 0x03};
    const unsigned char futureMajor[] = {0x16, 0x04, 0x01};
    EXPECT_TRUE(looksLikeTls(clientHello, sizeof clientHello));
    EXPECT_TRUE(looksLikeTls(alert, sizeof alert));
    EXPECT_FALSE(looksLikeTls(frame, sizeof frame));
    EXPECT_FALSE(looksLikeTls(otherRecord, sizeof otherRecord));
    EXPECT_FALSE(looksLikeTls(futureMajor, sizeof futureMajor));
    EXPECT_FALSE(looksLikeTls(clientHello, 2));
}

TEST(ToolsTls, BrokerUrlsAndOptionFiles)
{
    MqttUrl url = parseMqttUrl("mqtts://broker.example");
    EXPECT_TRUE(url.tls);
    EXPECT_EQ(url.port, 8883);
    url = parseMqttUrl("mqtts://127.0.0.1:1234/");
    EXPECT_TRUE(url.tls);
    EXPECT_EQ(url.port, 1234);
    EXPECT_EQ(url.host, "127.0.0.1");
    url = parseMqttUrl("mqtt://127.0.0.1");
    EXPECT_FALSE(url.tls);
    EXPECT_EQ(url.port, 1883);
    EXPECT_EQ(codeOf([] { parseMqttUrl("ssl://127.0.0.1"); }), EXIT_USAGE);

    TlsFiles files;
    EXPECT_FALSE(files.enabled());
    EXPECT_EQ(codeOf([&] { files.requireComplete(); }), EXIT_OK);
    files.cert = "certs/panel-{address}.crt";
    EXPECT_EQ(codeOf([&] { files.requireComplete(); }), EXIT_USAGE);
    files.key = "keys/{address}/panel-{address}.key";
    files.ca = "certs/ca.crt";
    EXPECT_EQ(codeOf([&] { files.requireComplete(); }), EXIT_OK);
    EXPECT_TRUE(files.perPanel());
    const TlsFiles panel = files.forPanel(1002);
    EXPECT_EQ(panel.cert, "certs/panel-1002.crt");
    EXPECT_EQ(panel.key, "keys/1002/panel-1002.key");
    EXPECT_EQ(panel.ca, "certs/ca.crt");
    EXPECT_FALSE(panel.perPanel());

    // Files that cannot serve stop a program before it connects, as bad input.
    EXPECT_EQ(codeOf([] { certificateFileName("/nonexistent/panel.crt"); }), EXIT_INPUT);
    EXPECT_EQ(codeOf([] { makeTlsContext(TlsFiles{"/nonexistent/a.crt", "/nonexistent/a.key", "/nonexistent/ca.crt", ""},
                                         TlsRole::CLIENT); }),
              EXIT_INPUT);
}
