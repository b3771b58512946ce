#include "nk_messageState.h"

#include <algorithm>

nk_messageStateRsp::nk_messageStateRsp(teVersion v) : nk_message(STATE_RSP, v) {}

nk_messageStateRsp::nk_messageStateRsp(nk_serializer* ser, teVersion v) : nk_message(STATE_RSP, v)
{
    serialize(ser, nk_serializer::SER_READ);
}

void nk_messageStateRsp::set(unsigned int serial, tString const& ci, tString const& csCfg, tString const& csSched,
                             unsigned int omc, unsigned int second, tString const& vc, tString const& va,
                             unsigned int evc, tString legacy, tString devName, tString devCus,
                             tUidList const& images)
{
    m_serial = serial;
    m_ci = ci;
    m_csCfg = csCfg;
    m_csSched = csSched;
    m_vc = vc;
    m_va = va;
    m_omc = omc;
    m_second = second;
    m_evc = evc;
    m_legacy = std::move(legacy);
    m_devName = std::move(devName);
    m_devCus = std::move(devCus);
    m_images = images;
}

void nk_messageStateRsp::setMobileState(teNkMobileRan ran, bool active)
{
    m_extState &= ~0xFFULL;
    if (active) m_extState |= 1;
    m_extState |= static_cast<unsigned long long>(ran & 0x7F) << 1;
}

bool nk_messageStateRsp::imageUidPresent(unsigned long long uid) const
{
    return std::find(m_images.begin(), m_images.end(), uid) != m_images.end();
}

bool nk_messageStateRsp::imageUidsPresent(tUidList const& uids) const
{
    for (unsigned long long uid : uids) {
        if (!imageUidPresent(uid)) return false;
    }
    return true;
}

bool nk_messageStateRsp::serialize(nk_serializer* ser, nk_serializer::teSerDirection dir)
{
    if (ser == nullptr) return false;
    if (!ser->u32(m_serial, dir) || !ser->string(m_ci, dir) || !ser->string(m_csCfg, dir) ||
        !ser->string(m_csSched, dir) || !ser->string(m_vc, dir) || !ser->string(m_va, dir) ||
        !ser->u32(m_omc, dir) || !ser->u32(m_second, dir) || !ser->u32(m_evc, dir))
        return false;
    if (version() == VERSION_0 && !ser->string(m_legacy, dir)) return false;
    if (!ser->string(m_devName, dir) || !ser->string(m_devCus, dir) || !ser->u32(m_flags, dir)) return false;

    if (version() >= VERSION_1) {
        unsigned int count = static_cast<unsigned int>(m_images.size());
        if (!ser->u32(count, dir)) return false;
        if (dir == nk_serializer::SER_READ) {
            m_images.clear();
            // Reserve only what the remaining bytes can hold; a forged count allocates nothing.
            if (count <= ser->remaining() / 8) m_images.reserve(count);
            for (unsigned int i = 0; i < count; ++i) {
                unsigned long long uid = 0;
                if (!ser->u64(uid, dir)) return false;
                m_images.push_back(uid);
            }
        } else {
            for (unsigned long long& uid : m_images) {
                if (!ser->u64(uid, dir)) return false;
            }
        }
    }
    if (version() >= VERSION_2 && !ser->u64(m_extState, dir)) return false;
    return true;
}

bool nk_messageStateRsp::serializeToJson(tJson* json)
{
    if (json == nullptr) return false;
    jsonEnvelope(json, "state", true);
    json->addInt("serial", m_serial);
    json->addString("ci", m_ci);
    json->addString("csCfg", m_csCfg);
    json->addString("csSched", m_csSched);
    json->addString("vc", m_vc);
    json->addString("va", m_va);
    json->addInt("omc", m_omc);
    json->addInt("evc", m_evc);
    json->addString("devName", m_devName);
    json->addString("devCus", m_devCus);
    json->addInt("flags", m_flags);
    for (unsigned long long uid : m_images) {
        tJson image;
        image.addUInt("uid", uid);
        json->addToArray("images", image);
    }
    json->addUInt("extState", m_extState);
    return true;
}

bool nk_messageStateRsp::serializeFromJson(tJson* json)
{
    if (!jsonEnvelopeMatches(json, "state", true)) return false;
    m_serial = static_cast<unsigned int>(json->getInt("serial", m_serial));
    m_ci = json->getString("ci");
    m_csCfg = json->getString("csCfg");
    m_csSched = json->getString("csSched");
    m_vc = json->getString("vc");
    m_va = json->getString("va");
    m_omc = static_cast<unsigned int>(json->getInt("omc", m_omc));
    m_evc = static_cast<unsigned int>(json->getInt("evc", m_evc));
    m_devName = json->getString("devName");
    m_devCus = json->getString("devCus");
    m_flags = static_cast<unsigned int>(json->getInt("flags", m_flags));
    m_images.clear();
    tJson image;
    for (unsigned int i = 0; json->getArrayObject("images", i, image); ++i) m_images.push_back(image.getUInt("uid", 0));
    m_extState = json->getUInt("extState", m_extState);
    return true;
}
