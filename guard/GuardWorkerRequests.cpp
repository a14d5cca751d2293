// The guard at work: what the operator asks for.
#include <cstdint>
#include <string>
#include <utility>

#include <unistd.h>

#include <nlohmann/json.hpp>

#include "GuardWorker.h"
#include "NoticeText.h"

static const int64_t MAX_LEASE_MS = 10000;

using nlohmann::json;

namespace {

std::string fail(const std::string& strText)
{
    return json{{"ok", false}, {"error", strText}}.dump();
}

std::string tellWish(WISH_E eWish)
{
    return (WISH_DONE == eWish) ? json{{"ok", true}}.dump() : fail(getWishText(eWish));
}

/** A whole number that is not negative; -1 when it is anything else. */
int64_t takeCount(const json& request, const char* pKey)
{
    const auto value = request.find(pKey);
    if (request.end() == value || !value->is_number_unsigned()) {
        return -1;
    }
    const auto u64Value = value->get<uint64_t>();
    return (u64Value <= INT64_MAX) ? static_cast<int64_t>(u64Value) : -1;
}

std::string takeText(const json& request, const char* pKey)
{
    const auto value = request.find(pKey);
    return (request.end() != value && value->is_string()) ? value->get<std::string>() : "";
}

std::string describeCopy(const FileCopy& copy)
{
    return json{{"ok", true}, {"size", copy.getSize()}, {"sha256", copy.getSum()}}.dump();
}

std::string nameCopy(const FileCopy& copy)
{
    return std::to_string(copy.getSize()) + " bytes, SHA-256 " + copy.getSum();
}

} // namespace

std::string GuardWorker::onRequest(OperatorSocket::Client& client, const std::string& strLine)
{
    const json request = json::parse(strLine, nullptr, false);
    const std::string strDo = request.is_object() ? takeText(request, "do") : "";
    if (strDo.empty()) {
        return fail("no request: {\"do\": ...}");
    }
    if ("state" == strDo) {
        return describeState();
    }
    if ("events" == strDo) {
        client.bEvents = true;
        return tellWish(WISH_DONE);
    }
    if ("lease" == strDo) {
        return (client.uNumber == m_uJobOwner) ? tellWish(m_interlock.renewLease(nowUs()))
                                               : fail("the lease is another's");
    }
    if ("job" == strDo) {
        Copying copying;
        copying.uClient = client.uNumber;
        copying.s64LeaseMs = takeCount(request, "lease");
        const bool bGood = copying.s64LeaseMs > 0 && copying.s64LeaseMs <= MAX_LEASE_MS;
        if (m_configuration.bLease && !bGood) {
            return fail(getWishText(WISH_LEASE));
        }
        return (LEVEL_JOB == m_interlock.getLevel()) ? tellWish(WISH_LEVEL) // its text is in use
                                                     : takeFile(client, copying);
    }
    if ("firmware" == strDo) {
        Copying copying;
        copying.uClient = client.uNumber;
        copying.bFirmware = true;
        const int64_t s64Size = takeCount(request, "size");
        copying.u64Size = static_cast<uint64_t>(s64Size);
        copying.strSum = takeText(request, "sha256");
        if (const WISH_E eWish = m_interlock.checkFirmware(nowUs()); WISH_DONE != eWish) {
            return tellWish(eWish);
        }
        return (s64Size < 0 || copying.strSum.empty()) ? fail("firmware comes with size and sha256")
                                                       : takeFile(client, copying);
    }
    return onWish(client, strDo);
}

/** Requests that say no more than what they are. */
std::string GuardWorker::onWish(const OperatorSocket::Client& client, const std::string& strDo)
{
    using Wish = WISH_E (Interlock::*)(int64_t);
    static const std::pair<const char*, Wish> WISHES[] = {
        {"motion", &Interlock::raise}, {"dark", &Interlock::drop},
        {"home", &Interlock::home},    {"unlock", &Interlock::unlock},
        {"pause", &Interlock::pause},  {"resume", &Interlock::resume},
    };
    const auto note = [&] {
        m_journal.write("user " + std::to_string(client.uUser) + ": " + strDo);
    };
    if ("off" == strDo || "stop" == strDo) {
        m_interlock.off(nowUs()); // before it is noted
        note();
        return tellWish(WISH_DONE);
    }
    if ("reset" == strDo) {
        note();
        m_interlock.clearReset();
        return tellWish(WISH_DONE);
    }
    for (const auto& [pName, wish] : WISHES) {
        if (strDo == pName) {
            note();
            return tellWish((m_interlock.*wish)(nowUs()));
        }
    }
    return fail("unknown request: " + strDo);
}

/** Begins to copy the file that came along; the answer follows. */
std::string GuardWorker::takeFile(OperatorSocket::Client& client, const Copying& copying)
{
    if (client.nPassed < 0) {
        return fail("no file came with the request");
    }
    const int nFd = std::exchange(client.nPassed, -1);
    if (m_job.isUnderWay() || m_image.isUnderWay()) {
        ::close(nFd);
        return tellWish(WISH_BUSY);
    }
    m_journal.write("user " + std::to_string(client.uUser) +
                    (copying.bFirmware ? ": firmware" : ": job"));
    m_copying = copying;
    std::string strError;
    return (copying.bFirmware ? m_image : m_job).begin(nFd, strError) ? "" : fail(strError);
}

/** Copies the next piece; nobody has to wait for a large file. */
void GuardWorker::copyOn()
{
    for (FileCopy* const pCopy : {&m_job, &m_image}) {
        if (!pCopy->isUnderWay()) {
            continue;
        }
        std::string strError;
        const FileCopy::STEP_E eStep = pCopy->step(strError);
        if (FileCopy::STEP_MORE == eStep || !m_operator.isConnected(m_copying.uClient)) {
            continue;
        }
        const bool bDone = FileCopy::STEP_DONE == eStep;
        m_operator.answer(m_copying.uClient, !bDone                ? fail(strError)
                                             : m_copying.bFirmware ? sendFirmware(m_copying)
                                                                   : openJob(m_copying));
    }
    if (LEVEL_JOB != m_interlock.getLevel()) {
        m_job.release();
    }
    if (!m_interlock.isSendingFirmware()) {
        m_image.release();
    }
}

std::string GuardWorker::openJob(const Copying& copying)
{
    const int64_t s64LeaseUs = m_configuration.bLease ? copying.s64LeaseMs * 1000 : 0;
    const WISH_E eWish = m_interlock.openJob(m_job.getText(), m_job.getSize(), s64LeaseUs, nowUs());
    if (WISH_DONE != eWish) {
        return tellWish(eWish);
    }
    m_uJobOwner = copying.uClient;
    m_strJobSum = m_job.getSum();
    m_journal.write("job opened: " + nameCopy(m_job));
    return describeCopy(m_job);
}

std::string GuardWorker::sendFirmware(const Copying& copying)
{
    if (m_image.getSize() != copying.u64Size) {
        return fail("the file has " + std::to_string(m_image.getSize()) + " bytes");
    }
    if (m_image.getSum() != copying.strSum) {
        return fail("the file's SHA-256 is " + m_image.getSum());
    }
    const WISH_E eWish = m_interlock.sendFirmware(m_image.getText(), m_image.getSize(), nowUs());
    if (WISH_DONE != eWish) {
        return tellWish(eWish);
    }
    m_journal.write("firmware begun: " + nameCopy(m_image));
    return describeCopy(m_image);
}

std::string GuardWorker::describeState() const
{
    json state{{"ok", true},
               {"level", getLevelName(m_interlock.getLevel())},
               {"controller", m_port.getFd() >= 0},
               {"controller_error", nullptr},
               {"beam_seen_off", m_interlock.isBeamSeenOff()},
               {"reset_held", m_interlock.isResetHeld()},
               {"homed", m_interlock.isHomed()},
               {"paused", m_interlock.isPaused()},
               {"held", m_interlock.isHeld()},
               {"line", m_interlock.getJobLine()},
               {"job", m_strJobSum},
               {"firmware", nullptr}};
    if (0 != m_nPortError) {
        state["controller_error"] = strerror(m_nPortError);
    }
    if (m_interlock.isSendingFirmware()) {
        state["firmware"] = m_interlock.getFirmwareTaken();
    }
    return state.dump();
}
