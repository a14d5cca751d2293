// What can be asked for on the operator's interface about jobs: docs/api.yaml.
#pragma once

#include <string>

#include <httplib.h>

class ApiRouter;
class Station;

/** Tells the router its paths; lives as long as that serves. Its handlers run on several threads.
 */
class JobApi
{
public:
    /** Both are borrowed. */
    JobApi(ApiRouter& router, Station& station);
    JobApi(const JobApi&) = delete;
    JobApi& operator=(const JobApi&) = delete;

private:
    void addFiles();
    void addRun();
    void upload(const httplib::Request& request, httplib::Response& response,
                const httplib::ContentReader& reader);
    void start(const httplib::Request& request, httplib::Response& response);
    void demandIdle(const std::string& strName) const;

    ApiRouter& m_router;
    Station& m_station;
};
