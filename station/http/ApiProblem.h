// What an answer says when something was not done: a problem document (RFC 9457).
#pragma once

#include <exception>
#include <string>

/** Thrown by whoever answers a request; answered as a problem document. */
class ApiProblem : public std::exception
{
public:
    /**
     * @param strName    one of docs/api.yaml's; another is an "internal"
     * @param strDetail  what was wrong this time, as a sentence
     */
    ApiProblem(const std::string& strName, std::string strDetail);

    const char* what() const noexcept override
    {
        return m_strDetail.c_str();
    }
    int getStatus() const
    {
        return m_nStatus;
    }

    /** The document, JSON in one line. */
    std::string getDocument() const;

private:
    std::string m_strName;
    std::string m_strTitle;
    std::string m_strAction;
    std::string m_strDetail;
    int m_nStatus;
};
