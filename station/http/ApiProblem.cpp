// What an answer says when something was not done: a problem document (RFC 9457).
#include "ApiProblem.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include <nlohmann/json.hpp>

namespace {

struct Kind
{
    const char* pName;
    int nStatus; // RFC 9110
    const char* pTitle;
    const char* pAction;
};

const Kind KINDS[] = {
    {"internal", 500, "The station failed", "Try again; tell whoever looks after the machine."},
    {"bad-request", 400, "Not understood", "Send what docs/api.yaml describes."},
    {"unauthorized", 401, "No token, or a wrong one", "Send the token file's line as a bearer."},
    {"host", 403, "Asked by a name that is not this machine's",
     "Use the machine's address, or add the name to http.hosts."},
    {"origin", 403, "Asked by a page of somebody else's",
     "Open the page of this machine, or add its origin to http.origins."},
    {"not-found", 404, "Nothing there", "Look at what there is: /jobs, docs/api.yaml."},
    {"method", 405, "Not with this method", "Ask with GET, change with POST."},
    {"media-type", 415, "Not this kind of content",
     "Send application/json; a file as application/octet-stream."},
    {"length", 411, "No length", "Send a Content-Length, and the body unchunked."},
    {"too-large", 413, "Too large", "Send less: 64 KiB of JSON, 32 MiB of a file."},
    {"full", 503, "No room for one more", "Try again when another has ended."},
    {"exists", 409, "There is one of this name", "Choose another name, or replace it."},
    {"busy", 409, "Something else is under way", "Wait until it is over, or stop it."},
    {"level", 409, "Not at this level", "Raise or drop the level first."},
    {"beam", 409, "The beam was not seen off",
     "See that the controller is plugged in and answers; reset it."},
    {"not-homed", 409, "The arm is not homed", "Raise the level to motion and home the arm."},
    {"laser-mode", 409, "The controller is not in laser mode", "Set $32=1 at the controller."},
    {"no-job", 409, "No job runs", "Start one."},
    {"lease", 409, "The lease is another's", "Only whoever started the job renews it."},
    {"refused", 422, "Refused by the guard or the controller",
     "Look at the limits; the journal tells more."},
    {"job-refused", 422, "The file would be refused", "Look at its check and mend the file."},
    {"restart", 422, "It cannot begin at that line", "Begin at another line, or at the first."},
    {"checksum", 422, "Not the file that was announced", "Send it again."},
    {"stopped", 409, "Stopped on the way", "See why in the journal; then home the arm."},
    {"late", 504, "It did not end in time",
     "See what the arm does; turn the beam off if in doubt."},
    {"no-answer", 504, "The guard does not answer", "Run kestrel-guard --off; restart the guard."},
    {"no-guard", 503, "The guard is not there",
     "Start kestrel-guard; if the laser is on, run kestrel-guard --off."},
    {"no-terminal", 503, "The guard's terminal is not open",
     "See that the station may open the guard's terminal."},
    {"no-camera", 503, "No new picture", "Plug the camera in and wait for a picture."},
    {"no-vision", 503, "No vision plug-in", "Put libframe_process.so into the station's folder."},
    {"no-limits", 503, "The guard's limits are not known",
     "Complete the guard's configuration; kestrel-guard --check tells what is missing."},
    {"no-space", 507, "The file could not be kept", "Make room in the station's folder."},
    {"not-supported", 501, "Not with this controller", "Use the controller's own tools."},
};

const Kind& find(const std::string& strName)
{
    const Kind* const pKind = std::find_if(std::begin(KINDS), std::end(KINDS),
                                           [&](const Kind& kind) { return strName == kind.pName; });
    return (std::end(KINDS) == pKind) ? KINDS[0] : *pKind;
}

} // namespace

ApiProblem::ApiProblem(const std::string& strName, std::string strDetail)
    : m_strDetail(std::move(strDetail))
{
    const Kind& kind = find(strName);
    m_strName = kind.pName;
    m_strTitle = kind.pTitle;
    m_strAction = kind.pAction;
    m_nStatus = kind.nStatus;
}

std::string ApiProblem::getDocument() const
{
    const nlohmann::json document = {{"type", "urn:problem:kestrel:" + m_strName},
                                     {"title", m_strTitle},
                                     {"status", m_nStatus},
                                     {"detail", m_strDetail},
                                     {"action", m_strAction}};
    return document.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}
