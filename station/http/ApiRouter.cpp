// What there is to ask for on the operator's interface, and who may ask for it.
#include "ApiRouter.h"

#include <algorithm>
#include <utility>

#include "ApiConnection.h"
#include "Log.h"

static const char* const SOURCE_NAME = "station/ApiServer"; // its lines are the server's

ApiRouter::ApiRouter(RequestRules rules) : m_rules(std::move(rules))
{
    m_router.set_payload_max_length(ApiConnection::MAX_FILE);
    m_router.set_pre_routing_handler(
        [this](const httplib::Request& request, httplib::Response& response) {
            return admit(request, response);
        });
    m_router.set_post_routing_handler(
        [this](const httplib::Request& request, httplib::Response& response) {
            addHeaders(request, response);
        });
    m_router.set_exception_handler(
        [](const httplib::Request&, httplib::Response& response, std::exception_ptr pException) {
            try {
                std::rethrow_exception(std::move(pException));
            } catch (const ApiProblem& problem) {
                tell(response, problem);
            } catch (const std::exception& error) {
                LOG(2, "%s\n", error.what());
                tell(response, ApiProblem("internal", error.what()));
            }
        });
    const httplib::Server::HandlerWithResponse complete = [](const httplib::Request&,
                                                             httplib::Response& response) {
        if (response.body.empty()) { // the library's own
            tell(response, ApiProblem((413 == response.status) ? "too-large" : "bad-request",
                                      "The request is not well-formed."));
        }
        return httplib::Server::HandlerResponse::Handled;
    };
    m_router.set_error_handler(complete);
}

void ApiRouter::get(const std::string& strPattern, Handler handler)
{
    m_vecRoute.push_back({"GET", std::regex(strPattern), false});
    m_router.Get(strPattern, std::move(handler));
}

void ApiRouter::post(const std::string& strPattern, Handler handler)
{
    m_vecRoute.push_back({"POST", std::regex(strPattern), false});
    m_router.Post(strPattern, std::move(handler));
}

void ApiRouter::upload(const std::string& strPattern, FileHandler handler)
{
    m_vecRoute.push_back({"POST", std::regex(strPattern), true});
    m_router.Post(strPattern, std::move(handler));
}

void ApiRouter::open(const std::string& strPath)
{
    m_vecOpen.push_back(strPath);
}

bool ApiRouter::serve(httplib::Stream& stream, bool bLast)
{
    bool bClosed = false;
    const bool bAnswered = m_router.process_request(stream, bLast, bClosed, nullptr);
    return bAnswered && !bClosed;
}

bool ApiRouter::isFriend(const httplib::Request& request) const
{
    return m_rules.isOrigin(request.get_header_value("Origin"), request.get_header_value("Host"),
                            request.local_port);
}

httplib::Server::HandlerResponse ApiRouter::admit(const httplib::Request& request,
                                                  httplib::Response& response)
{
    try {
        check(request, response);
        return ("OPTIONS" == request.method) ? httplib::Server::HandlerResponse::Handled
                                             : httplib::Server::HandlerResponse::Unhandled;
    } catch (const ApiProblem& problem) {
        tell(response, problem);
        return httplib::Server::HandlerResponse::Handled;
    }
}

void ApiRouter::check(const httplib::Request& request, httplib::Response& response) const
{
    if (1 != request.get_header_value_count("Host") ||
        !m_rules.isHost(request.get_header_value("Host"))) {
        throw ApiProblem("host",
                         "The request is for \"" + request.get_header_value("Host") + "\".");
    }
    if (request.has_header("Origin") && !isFriend(request)) {
        throw ApiProblem("origin",
                         "The page is from \"" + request.get_header_value("Origin") + "\".");
    }
    if ("OPTIONS" == request.method) { // a browser asks beforehand, without the token
        response.status = 204;
        response.set_header("Access-Control-Allow-Methods", "GET, POST");
        response.set_header("Access-Control-Allow-Headers",
                            "Authorization, Content-Type, Last-Event-ID");
        response.set_header("Access-Control-Max-Age", "600");
        return;
    }
    const bool bOpen =
        m_vecOpen.end() != std::find(m_vecOpen.begin(), m_vecOpen.end(), request.path);
    if (!bOpen && !m_rules.isToken(request.get_header_value("Authorization"))) {
        throw ApiProblem("unauthorized", "The request carries no token that is known.");
    }
    std::string strMethods;
    bool bFile = false;
    bool bFound = false;
    for (const Route& route : m_vecRoute) {
        if (std::regex_match(request.path, route.pattern)) {
            strMethods += (strMethods.empty() ? "" : ", ") + route.strMethod;
            bFound = bFound || route.strMethod == request.method;
            bFile = bFile || (route.bFile && route.strMethod == request.method);
        }
    }
    if (strMethods.empty()) {
        throw ApiProblem("not-found", "There is no " + request.path + ".");
    }
    if (!bFound) {
        response.set_header("Allow", strMethods);
        throw ApiProblem("method", "It can be asked for with " + strMethods + ".");
    }
    if ("POST" == request.method) {
        const std::string strType = request.get_header_value("Content-Type");
        const std::string strWanted = bFile ? "application/octet-stream" : "application/json";
        if (strType.substr(0, strType.find(';')) != strWanted) {
            throw ApiProblem("media-type", "This takes " + strWanted + ".");
        }
    }
}

void ApiRouter::addHeaders(const httplib::Request& request, httplib::Response& response) const
{
    response.set_header("Cache-Control", "no-store");
    response.set_header("X-Content-Type-Options", "nosniff");
    response.set_header("Vary", "Origin");
    if (request.has_header("Origin") && isFriend(request)) {
        response.set_header("Access-Control-Allow-Origin", request.get_header_value("Origin"));
    }
}

void ApiRouter::tell(httplib::Response& response, const ApiProblem& problem)
{
    response.status = problem.getStatus();
    if (401 == response.status) {
        response.set_header("WWW-Authenticate", "Bearer");
    }
    response.set_content(problem.getDocument(), "application/problem+json");
}
