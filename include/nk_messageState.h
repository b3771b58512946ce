#ifndef NK_MESSAGESTATE_H
#define NK_MESSAGESTATE_H

#include "nk_message.h"
#include "tStringList.h"

// Radio access technology of a cellular display, kept in bits 1 to 7 of STATE_RSP's
// "extState" (bit 0 says whether the link is up).
enum teNkMobileRan : unsigned char
{
    NK_MOBILE_RAN_NONE = 0,
    NK_MOBILE_RAN_2G = 1,
    NK_MOBILE_RAN_3G = 2,
    NK_MOBILE_RAN_4G = 3,
    NK_MOBILE_RAN_NBIOT = 4,
    NK_MOBILE_RAN_LTE_M = 5,
    NK_MOBILE_RAN_5G = 6,
};

// STATE_REQ (1): asks a device for its state; can carry one task. Body: task u8, name
// string, in every version.
class NK_API nk_messageStateReq : public nk_message
{
public:
    enum teTask : unsigned char
    {
        TASK_NONE = 0,
        TASK_NEW_NAME = 1,
    };

    explicit nk_messageStateReq(teVersion v);
    nk_messageStateReq(nk_serializer* ser, teVersion v);

    void setTaskNewName(tString const& name);
    unsigned char task() const { return m_task; }
    tString const& newName() const { return m_newName; }

    bool serialize(nk_serializer* ser, nk_serializer::teSerDirection dir) override;
    bool serializeToJson(tJson* json) override;
    bool serializeFromJson(tJson* json) override;

private:
    unsigned char m_task = TASK_NONE;
    tString m_newName;
};

// STATE_RSP (2): the device's identity, checksums, counters, names, flags, the image uids it
// holds (version 1 on) and an extended state word (version 2 on).
class NK_API nk_messageStateRsp : public nk_message
{
public:
    explicit nk_messageStateRsp(teVersion v);
    nk_messageStateRsp(nk_serializer* ser, teVersion v);

    // Note the order: the two counters come before vc and va.
    void set(unsigned int serial, tString const& ci, tString const& csCfg, tString const& csSched, unsigned int omc,
             unsigned int second, tString const& vc, tString const& va, unsigned int evc, tString legacy,
             tString devName, tString devCus, tUidList const& images);
    void setFlags(unsigned int flags) { m_flags = flags; }
    void setExtState(unsigned long long extState) { m_extState = extState; }
    // Replaces the low byte of extState: bit 0 = active, bits 1 to 7 = ran; the rest is kept.
    void setMobileState(teNkMobileRan ran, bool active);

    bool imageUidPresent(unsigned long long uid) const;
    // True when every uid is present (and for an empty list).
    bool imageUidsPresent(tUidList const& uids) const;

    unsigned int serial() const { return m_serial; }
    tString const& ci() const { return m_ci; }
    tString const& csCfg() const { return m_csCfg; }
    tString const& csSched() const { return m_csSched; }
    tString const& vc() const { return m_vc; }
    tString const& va() const { return m_va; }
    unsigned int omc() const { return m_omc; }
    unsigned int second() const { return m_second; }
    unsigned int evc() const { return m_evc; }
    tString const& legacy() const { return m_legacy; }
    tString const& devName() const { return m_devName; }
    tString const& devCus() const { return m_devCus; }
    unsigned int flags() const { return m_flags; }
    unsigned long long extState() const { return m_extState; }
    teNkMobileRan mobileRan() const { return static_cast<teNkMobileRan>((m_extState >> 1) & 0x7F); }
    bool mobileActive() const { return (m_extState & 1) != 0; }
    tUidList const& images() const { return m_images; }

    bool serialize(nk_serializer* ser, nk_serializer::teSerDirection dir) override;
    bool serializeToJson(tJson* json) override;
    bool serializeFromJson(tJson* json) override;

private:
    unsigned int m_serial = 0;
    tString m_ci;
    tString m_csCfg;
    tString m_csSched;
    tString m_vc;
    tString m_va;
    unsigned int m_omc = 0;
    unsigned int m_second = 0;  // binary only
    unsigned int m_evc = 0;
    tString m_legacy;           // binary only, version 0 only
    tString m_devName;
    tString m_devCus;
    unsigned int m_flags = 0;
    unsigned long long m_extState = 0;
    tUidList m_images;
};

#endif
