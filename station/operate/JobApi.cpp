// What can be asked for on the operator's interface about jobs: docs/api.yaml.
#include "JobApi.h"

#include "ApiProblem.h"
#include "ApiRouter.h"
#include "ApiText.h"
#include "Station.h"

using nlohmann::json;

// Of a job's path; what stands for NAME is a file's name.
static std::string makePattern(const std::string& strEnd)
{
    return "/jobs/([A-Za-z0-9_][A-Za-z0-9._-]{0,63})" + strEnd;
}

JobApi::JobApi(ApiRouter& router, Station& station) : m_router(router), m_station(station)
{
    addFiles();
    addRun();
}

void JobApi::demandIdle(const std::string& strName) const
{
    if (m_station.getRun().isRunning(strName)) {
        throw ApiProblem("busy", "\"" + strName + "\" runs.");
    }
}

void JobApi::upload(const httplib::Request& request, httplib::Response& response,
                    const httplib::ContentReader& reader)
{
    const std::string strName = request.get_param_value("name");
    const std::string strReplace = request.get_param_value("replace");
    const bool bReplace = "true" == strReplace;
    if (!JobStore::isName(strName) ||
        (request.has_param("replace") && !bReplace && "false" != strReplace)) {
        throw ApiProblem("bad-request", "No file may have this name, or \"replace\" is no flag.");
    }
    demandIdle(strName);
    JobStore::Incoming incoming;
    receiveFile(request, reader, incoming);
    const json job = m_station.getStore().add(strName, bReplace, incoming);
    m_station.getJournal().add("operator", "file " + strName + " kept, SHA-256 " +
                                               job["sha256"].get<std::string>());
    response.status = 201;
    answerJson(response, job);
}

void JobApi::addFiles()
{
    const auto tell = [this](const std::string& strEnd,
                             json (JobStore::*pTell)(const std::string&) const) {
        m_router.get(makePattern(strEnd),
                     [this, pTell](const httplib::Request& request, httplib::Response& response) {
                         answerJson(response, (m_station.getStore().*pTell)(request.matches[1]));
                     });
    };
    m_router.get("/jobs", [this](const httplib::Request&, httplib::Response& response) {
        answerJson(response, m_station.getStore().list());
    });
    m_router.upload("/jobs", [this](const httplib::Request& request, httplib::Response& response,
                                    const httplib::ContentReader& reader) {
        upload(request, response, reader);
    });
    tell("", &JobStore::get);
    m_router.get(makePattern("/file"),
                 [this](const httplib::Request& request, httplib::Response& response) {
                     response.set_content(m_station.getStore().read(request.matches[1]),
                                          "application/octet-stream");
                 });
    m_router.get(makePattern("/picture"), [this](const httplib::Request& request,
                                                 httplib::Response& response) {
        response.set_content(m_station.getStore().draw(request.matches[1]), "image/svg+xml");
    });
    m_router.post(makePattern("/check"),
                  [this](const httplib::Request& request, httplib::Response& response) {
                      (void)takeBody(request);
                      answerJson(response, m_station.getStore().check(request.matches[1]));
                  });
    m_router.post(makePattern("/remove"), [this](const httplib::Request& request,
                                                 httplib::Response& response) {
        (void)takeBody(request);
        demandIdle(request.matches[1]);
        m_station.getStore().remove(request.matches[1]);
        m_station.getJournal().add("operator", "file " + request.matches[1].str() + " removed");
        answerJson(response, m_station.getStore().list());
    });
}

void JobApi::start(const httplib::Request& request, httplib::Response& response)
{
    const json body = takeBody(request, {"unattended", "line"});
    const json unattended = body.value("unattended", json(false));
    if (!unattended.is_boolean()) {
        throw ApiProblem("bad-request", "\"unattended\" is neither true nor false.");
    }
    const json line = body.value("line", json(1U));
    if (!line.is_number_unsigned() || 0U == line) {
        throw ApiProblem("bad-request", "\"line\" is no number of a line.");
    }
    answerJson(response, m_station.startJob(request.matches[1], unattended, line));
}

void JobApi::addRun()
{
    const auto change = [this](const char* pPath, void (JobRun::*pDo)()) {
        m_router.post(pPath,
                      [this, pDo](const httplib::Request& request, httplib::Response& response) {
                          (void)takeBody(request);
                          (m_station.getRun().*pDo)();
                          answerJson(response, m_station.describeAnew());
                      });
    };
    m_router.post(makePattern("/start"),
                  [this](const httplib::Request& request, httplib::Response& response) {
                      start(request, response);
                  });
    m_router.post("/job/lease",
                  [this](const httplib::Request& request, httplib::Response& response) {
                      const json body = takeBody(request, {"lease"});
                      const json lease = body.value("lease", json());
                      if (!lease.is_string()) {
                          throw ApiProblem("bad-request", "\"lease\" is no text.");
                      }
                      m_station.getRun().renew(lease);
                      answerJson(response, m_station.describeAnew());
                  });
    change("/job/pause", &JobRun::pause);
    change("/job/resume", &JobRun::resume);
    change("/job/stop", &JobRun::stop);
}
