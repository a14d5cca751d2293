// What the guard answers, as the problem that it is for whoever asked.
#include "GuardProblem.h"

#include <utility>

#include "ApiProblem.h"
#include "NoticeText.h"

namespace {

/** Which problem the guard's words are. */
const char* findProblem(const std::string& strError)
{
    static const std::pair<WISH_E, const char*> PROBLEMS[] = {{WISH_LEVEL, "level"},
                                                              {WISH_BEAM, "beam"},
                                                              {WISH_BUSY, "busy"},
                                                              {WISH_NOT_HOMED, "not-homed"},
                                                              {WISH_LASER_MODE, "laser-mode"},
                                                              {WISH_UNSUPPORTED, "not-supported"}};
    for (const auto& [eWish, pProblem] : PROBLEMS) {
        if (strError == getWishText(eWish)) {
            return pProblem;
        }
    }
    if ("the lease is another's" == strError) {
        return "lease";
    }
    // "the file has 7 bytes", "the file's SHA-256 is ..."
    return (0 == strError.compare(0, 8, "the file")) ? "checksum" : "refused";
}

} // namespace

void demandDone(const GuardLink::Answer& answer)
{
    switch (answer.eResult) {
    case GuardLink::Answer::DONE:
        break;
    case GuardLink::Answer::REFUSED:
        throw ApiProblem(findProblem(answer.strError), "The guard says: " + answer.strError + ".");
    case GuardLink::Answer::GONE:
        throw ApiProblem("no-guard", "Nobody answers at the guard's socket.");
    case GuardLink::Answer::LATE:
        throw ApiProblem("no-answer", "The guard has taken the request and does not answer it.");
    }
}
