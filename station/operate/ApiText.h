// What requests say and answers are made of.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>

#include <httplib.h>

#include <nlohmann/json.hpp>

#include "JobStore.h"

/** In one line; bytes that are no UTF-8 are replaced. */
std::string toText(const nlohmann::json& document);

void answerJson(httplib::Response& response, const nlohmann::json& document);

// What is not as it has to be is thrown as an ApiProblem.

/** The body as an object with no key but these. */
nlohmann::json takeBody(const httplib::Request& request,
                        std::initializer_list<const char*> keys = {});

double takeNumber(const nlohmann::json& body, const char* pKey, double dLeast, double dMost);

/** A whole number in the query. */
uint64_t takeCount(const httplib::Request& request, const char* pKey, uint64_t u64Default,
                   uint64_t u64Least, uint64_t u64Most);

/** All of the file that comes with a request. */
void receiveFile(const httplib::Request& request, const httplib::ContentReader& reader,
                 JobStore::Incoming& incoming);
