// What can be asked for on the operator's interface, and how it is answered: docs/api.yaml.
#pragma once

#include <string>

#include <httplib.h>

#include <nlohmann/json.hpp>

class ApiRouter;
class ApiServer;
class Station;

/** Tells the server its paths; lives as long as that serves. Its handlers run on several threads.
 */
class StationApi
{
public:
    /** Both are borrowed. */
    StationApi(ApiServer& server, Station& station);
    StationApi(const StationApi&) = delete;
    StationApi& operator=(const StationApi&) = delete;

private:
    void addState();
    void addArm();
    void watch(const httplib::Request& request, httplib::Response& response);
    void tellJournal(const httplib::Request& request, httplib::Response& response);
    void tellMetrics(httplib::Response& response);
    void sendFirmware(const httplib::Request& request, httplib::Response& response,
                      const httplib::ContentReader& reader);
    void tellState(httplib::Response& response);

    ApiServer& m_server;
    ApiRouter& m_router;
    Station& m_station;
};
