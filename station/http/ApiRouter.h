// What there is to ask for on the operator's interface, and who may ask for it.
#pragma once

#include <functional>
#include <regex>
#include <string>
#include <vector>

#include <httplib.h>

#include "ApiProblem.h"
#include "RequestRules.h"

/**
 * Answers the request of a stream: by its handler, if host, origin, token, path, method and kind of
 * body are as they have to be, else by a problem document. The library parses it. Handlers are
 * added before the first request; then any thread may serve.
 */
class ApiRouter
{
public:
    using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;
    using FileHandler = httplib::Server::HandlerWithContentReader;

    explicit ApiRouter(RequestRules rules);
    ApiRouter(const ApiRouter&) = delete;
    ApiRouter& operator=(const ApiRouter&) = delete;

    // What handlers throw is answered. The pattern is a regular expression for the whole path.
    void get(const std::string& strPattern, Handler handler);
    void post(const std::string& strPattern, Handler handler);
    void upload(const std::string& strPattern, FileHandler handler);

    /** No token is asked for at this path. */
    void open(const std::string& strPath);

    /**
     * Read a request and answer it; blocks for its handler.
     * @param bLast  tell the client that the connection ends behind the answer
     * @return whether another request may follow
     */
    bool serve(httplib::Stream& stream, bool bLast);

private:
    /** The library's server without its sockets and threads. */
    struct Router : httplib::Server
    {
        Router()
        {
            svr_sock_ = 0; // it takes a server without one for one that ends, and ends its streams
        }
        using httplib::Server::process_request;
    };
    struct Route
    {
        std::string strMethod;
        std::regex pattern;
        bool bFile;
    };

    httplib::Server::HandlerResponse admit(const httplib::Request& request,
                                           httplib::Response& response);
    void check(const httplib::Request& request, httplib::Response& response) const;
    void addHeaders(const httplib::Request& request, httplib::Response& response) const;
    bool isFriend(const httplib::Request& request) const;
    static void tell(httplib::Response& response, const ApiProblem& problem);

    const RequestRules m_rules;
    Router m_router;
    std::vector<Route> m_vecRoute;
    std::vector<std::string> m_vecOpen;
};
