// What can be asked for on the operator's interface, and how it is answered: docs/api.yaml.
#include "StationApi.h"

#include <cctype>
#include <cstdio>
#include <memory>

#include "ApiProblem.h"
#include "ApiServer.h"
#include "ApiText.h"
#include "Station.h"
#include "Time.h"

static const size_t JOURNAL_LIMIT = 100; // unless asked otherwise
static const uint64_t COMMENT_MS = 5000; // a watcher that hears nothing hears that

using nlohmann::json;

namespace {

/** "X1.000 F600.0": the words of a straight move. */
std::string takeMove(const httplib::Request& request)
{
    const json body = takeBody(request, {"x", "y", "z", "feed"});
    std::string strWords;
    char acWord[64];
    for (const char* const pAxis : {"x", "y", "z"}) {
        if (body.contains(pAxis)) {
            snprintf(acWord, sizeof(acWord), "%c%.3f ", static_cast<char>(toupper(*pAxis)),
                     takeNumber(body, pAxis, -10000, 10000));
            strWords += acWord;
        }
    }
    if (strWords.empty()) {
        throw ApiProblem("bad-request", "No axis is told.");
    }
    snprintf(acWord, sizeof(acWord), "F%.1f", takeNumber(body, "feed", 0.1, 100000));
    return strWords + acWord;
}

/** One of the words of an event stream. */
std::string makeEvent(const char* pName, const std::string& strId, const std::string& strData)
{
    return std::string("event: ") + pName + "\n" + (strId.empty() ? "" : "id: " + strId + "\n") +
           "data: " + strData + "\n\n";
}

} // namespace

StationApi::StationApi(ApiServer& server, Station& station)
    : m_server(server), m_router(server.getRouter()), m_station(station)
{
    addState();
    addArm();
}

void StationApi::tellState(httplib::Response& response)
{
    answerJson(response, m_station.describeAnew());
}

void StationApi::addState()
{
    m_router.open("/healthz");
    m_router.get("/healthz", [](const httplib::Request&, httplib::Response& response) {
        answerJson(response, {{"status", "ok"}});
    });
    m_router.get("/state", [this](const httplib::Request&, httplib::Response& response) {
        tellState(response);
    });
    m_router.get("/events", [this](const httplib::Request& request, httplib::Response& response) {
        watch(request, response);
    });
    m_router.get("/metrics", [this](const httplib::Request&, httplib::Response& response) {
        tellMetrics(response);
    });
    m_router.get("/journal", [this](const httplib::Request& request, httplib::Response& response) {
        tellJournal(request, response);
    });
}

void StationApi::tellJournal(const httplib::Request& request, httplib::Response& response)
{
    const uint64_t u64After = takeCount(request, "after", 0, 0, UINT64_MAX);
    const uint64_t u64Limit =
        takeCount(request, "limit", JOURNAL_LIMIT, 1, StationJournal::MAX_ENTRIES);
    json entries = json::array();
    for (const StationJournal::Entry& entry :
         m_station.getJournal().getBehind(u64After, static_cast<size_t>(u64Limit))) {
        entries.push_back(entry.toJson());
    }
    answerJson(response, {{"entries", entries}});
}

void StationApi::watch(const httplib::Request& request, httplib::Response& response)
{
    struct Watcher
    {
        uint32_t u32Version = 0; // of the state that was sent
        uint64_t u64Id = 0;      // of the journal entry that was sent
        uint64_t u64SentMs = 0;
    };
    const auto pWatcher = std::make_shared<Watcher>();
    pWatcher->u64Id = m_station.getJournal().getLastId();
    const std::string strLast = request.get_header_value("Last-Event-ID");
    if (!strLast.empty()) {
        if (strLast.size() > 15 || std::string::npos != strLast.find_first_not_of("0123456789")) {
            throw ApiProblem("bad-request", "Last-Event-ID is no number of an entry.");
        }
        pWatcher->u64Id = std::stoull(strLast);
    }
    response.set_chunked_content_provider(
        "text/event-stream", [this, pWatcher](size_t, httplib::DataSink& sink) {
            std::string strState;
            m_station.getBoard().wait(pWatcher->u32Version, strState);
            if (m_server.isEnding() || !sink.is_writable()) {
                return false;
            }
            std::string strText = strState.empty() ? "" : makeEvent("state", "", strState);
            for (const StationJournal::Entry& entry :
                 m_station.getJournal().getBehind(pWatcher->u64Id, StationJournal::MAX_ENTRIES)) {
                strText +=
                    makeEvent("journal", std::to_string(entry.u64Id), toText(entry.toJson()));
                pWatcher->u64Id = entry.u64Id;
            }
            const uint64_t u64NowMs = monotonicMs();
            if (strText.empty() && u64NowMs - pWatcher->u64SentMs >= COMMENT_MS - 1000) {
                strText = ":\n\n";
            }
            if (!strText.empty()) {
                pWatcher->u64SentMs = u64NowMs;
                return sink.write(strText.data(), strText.size());
            }
            return true;
        });
}

void StationApi::tellMetrics(httplib::Response& response)
{
    std::string strText;
    const auto add = [&strText](const std::string& strName, const char* pType, const char* pHelp,
                                const json& value) {
        const std::string strValue = value.is_boolean() ? (value.get<bool>() ? "1" : "0")
                                     : value.is_null()  ? "0"
                                                        : value.dump();
        strText += "# HELP kestrel_" + strName + " " + pHelp + "\n# TYPE kestrel_" + strName + " " +
                   pType + "\nkestrel_" + strName + " " + strValue + "\n";
    };
    const json state = m_station.describe();
    const json& guard = state["guard"];
    const json& job = state["job"];
    const bool bJob = job.is_object();
    add("camera_pictures_total", "counter", "Pictures that the camera has delivered.",
        state["camera"]["pictures"]);
    add("camera_present", "gauge", "Whether a picture came in the last 2 s.",
        state["camera"]["present"]);
    add("guard_present", "gauge", "Whether the guard answers.", guard["present"]);
    add("controller_present", "gauge", "Whether the controller is plugged in.",
        guard["controller"]);
    add("beam_seen_off", "gauge", "Whether the controller has shown that the beam is off.",
        guard["beam_seen_off"]);
    add("homed", "gauge", "Whether the place of the arm is known.", guard["homed"]);
    add("level_dark", "gauge", "Whether the guard's level is dark.", "dark" == guard["level"]);
    add("job_running", "gauge", "Whether a job is open.", bJob);
    add("job_held", "gauge", "Whether it is held.", bJob && "held" == job["status"]);
    add("job_lines", "gauge", "Lines of the job.", bJob ? job["lines"] : json(0));
    add("job_lines_through", "gauge", "Lines of the job that are through.",
        bJob ? job["line"] : json(0));
    strText += "# HELP kestrel_trips_total Trips of the guard since the station's start.\n"
               "# TYPE kestrel_trips_total counter\n" +
               m_station.getTrips().tell("kestrel_trips_total");
    add("http_connections", "gauge", "Connections to the operator's interface.",
        m_server.getConnections());
    response.set_content(strText, "text/plain; version=0.0.4");
}

void StationApi::sendFirmware(const httplib::Request& request, httplib::Response& response,
                              const httplib::ContentReader& reader)
{
    const uint64_t u64Size = takeCount(request, "size", 0, 1, ApiConnection::MAX_FILE);
    const std::string strSum = request.get_param_value("sha256");
    if (0 == u64Size || 64 != strSum.size() ||
        std::string::npos != strSum.find_first_not_of("0123456789abcdef")) {
        throw ApiProblem("bad-request", "An image comes with its size and its SHA-256.");
    }
    JobStore::Incoming incoming;
    receiveFile(request, reader, incoming);
    m_station.sendFirmware(incoming.finish(), u64Size, strSum);
    answerJson(response, {{"size", u64Size}, {"sha256", strSum}});
}

void StationApi::addArm()
{
    const auto change = [this](const char* pPath, void (Station::*pDo)()) {
        m_router.post(pPath,
                      [this, pDo](const httplib::Request& request, httplib::Response& response) {
                          (void)takeBody(request);
                          (m_station.*pDo)();
                          tellState(response);
                      });
    };
    m_router.post("/off", [this](const httplib::Request& request, httplib::Response& response) {
        (void)takeBody(request);
        m_station.turnOff();
        answerJson(response, m_station.describe()); // without another look
    });
    m_router.upload(
        "/firmware",
        [this](const httplib::Request& request, httplib::Response& response,
               const httplib::ContentReader& reader) { sendFirmware(request, response, reader); });
    change("/home", &Station::home);
    change("/unlock", &Station::unlock);
    change("/reset", &Station::reset);
    m_router.post("/level", [this](const httplib::Request& request, httplib::Response& response) {
        const json body = takeBody(request, {"level"});
        const json level = body.value("level", json());
        if ("dark" != level && "motion" != level) {
            throw ApiProblem("bad-request", "The level is neither dark nor motion.");
        }
        m_station.setLevel(level);
        tellState(response);
    });
    m_router.post("/move", [this](const httplib::Request& request, httplib::Response& response) {
        m_station.move(takeMove(request));
        tellState(response);
    });
    m_router.post("/measure", [this](const httplib::Request& request, httplib::Response& response) {
        (void)takeBody(request);
        answerJson(response, m_station.measure());
    });
    m_router.get("/measure/pictures/([a-z]+)", [this](const httplib::Request& request,
                                                      httplib::Response& response) {
        const std::string strPicture = m_station.getMeasure().getPicture(request.matches[1]);
        if (strPicture.empty()) {
            throw ApiProblem("not-found", "The last measurement has no such picture.");
        }
        response.set_content(strPicture, "image/jpeg");
    });
    m_router.post("/jog", [this](const httplib::Request& request, httplib::Response& response) {
        m_station.jog(takeMove(request));
        tellState(response);
    });
}
