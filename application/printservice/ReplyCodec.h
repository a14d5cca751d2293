// The controller's language as the print service needs it, apart from the service.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

/**
 * Free functions over the text of a reply (at most 64 bytes, one read's worth, cut anywhere) and
 * over the commands that go out. Stateless; any thread.
 *
 * A program links one unit with these functions: the library kestrel_replycodec has a placeholder
 * for a controller whose language is not settled, kestrel_guardcodec the guard's and the virtual
 * controller's.
 */
namespace ReplyCodec {

/** @return a status code above 0, or 0 when the reply reports none */
int getStatusCode(std::string strReply);

/** @return an error code above 0, or 0 when the reply reports none */
int getErrorCode(std::string strReply);

/** @return an alarm code above 0, or 0 when the reply reports none */
int getAlarmCode(std::string strReply);

/** @return true when the last line sent has been taken and need not be sent again */
bool isAck(std::string strReply);

/** @return the wire form of a single command, without the line end that the service adds */
std::string encodeCommand(std::string strCommand);

/** @return the wire form of what the subscribers of an IdlePrintEvent filled in */
std::string encodeIdleReport(std::vector<int32_t> vecValue, int32_t s32Arg1, int32_t s32Arg2);

} // namespace ReplyCodec
