// The configuration's lists are edited from several threads while another thread sends the
// configuration and computes its checksum. Run under ThreadSanitizer by `make tsan`.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "nk_messageSetConfig.h"

TEST(ConfigConcurrency, ListEditsWhileSerializingAndChecksumming)
{
    nk_messageSetConfigReq config(nk_message::VERSION_3);
    config.device_setName("device");
    std::atomic<bool> stop{false};
    const int rounds = 2000;

    std::vector<std::thread> editors;
    for (int t = 0; t < 2; ++t) {
        editors.emplace_back([&config, t] {
            tTime noon(19000LL * 86400 + 43200);
            for (int i = 0; i < rounds; ++i) {
                config.timeSlot_add_ts("slot", 3600 * t + i, 3600 * t + i + 60, i % 2 == 0, true);
                tTimeSlot copy;
                if (config.timeSlot_get_ts(0, &copy)) config.timeSlot_set_ts(0, copy);
                config.timeSlot_durationToNextTimeSlotFromTime_sec_ts(noon);
                if (config.timeSlot_count_ts() > 20) config.timeSlot_remove_ts(0);
                tTimeslots all;
                config.timeslots_get(&all);
                if (i % 50 == 49) config.timeslots_set(&all);
            }
        });
    }
    editors.emplace_back([&config] {
        for (int i = 0; i < rounds; ++i) {
            config.frm_change_ts("f", 0, 0, 10, 10, 0, 1, 5);
            std::vector<int> ids = config.frm_getListOfFrameIds();
            tFrame f;
            if (!ids.empty()) config.frm_getById(static_cast<unsigned short>(ids.front()), &f);
            if (config.frm_count() > 10) config.frm_remove(static_cast<unsigned short>(ids.front()));
            config.frm_get(0);
            config.getNewFrameId(10);
            // Another revision's checksum while the sender writes the version-3 body.
            if (i % 20 == 0) {
                EXPECT_EQ(config.checksum(nk_message::VERSION_2).length(), 40u);
            }
        }
    });

    std::atomic<int> sent{0};
    std::thread sender([&] {
        nk_messageSetConfigReq mirror(nk_message::VERSION_3);
        do {  // at least once, however the threads are scheduled
            nk_serializer ser;
            if (config.serializeMsg(&ser)) {
                std::unique_ptr<nk_message> back(nk_message::getMessage(&ser));
                ASSERT_NE(back, nullptr);
                EXPECT_EQ(back->type(), nk_message::SET_CONFIG_REQ);
                ++sent;
            }
            EXPECT_EQ(config.checksum(nk_message::VERSION_2).length(), 40u);
            EXPECT_FALSE(config.getJson().isEmpty());
            mirror.setConfigFrom(&config);
        } while (!stop.load());
    });

    for (auto& e : editors) e.join();
    stop = true;
    sender.join();

    // Quiet again: a copy carries the same checksum, and the lists stayed within bounds.
    nk_messageSetConfigReq copy(nk_message::VERSION_3);
    copy.setConfigFrom(&config);
    EXPECT_EQ(copy.checksum(nk_message::VERSION_3), config.checksum(nk_message::VERSION_3));
    EXPECT_LE(config.timeSlot_count_ts(), 22u);
    EXPECT_LE(config.frm_count(), 11);
    EXPECT_EQ(config.version(), nk_message::VERSION_3);
    EXPECT_GT(sent.load(), 0);
}
