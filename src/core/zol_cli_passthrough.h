// Long texts over IPC: a request of the command-line client "zol_cli", and its answer in as many messages as
// it takes, ended by an empty one. Results are 0, or one of the negative numbers of cli_passthrough_error.
#pragma once

#include <string>

#include "core/ipc_messages.h"

// The most data of one message.
inline constexpr unsigned long cli_passthrough_max_data = 65536 - sizeof(ipc_cli_stream_msg_t);
// The longest answer that a client takes.
inline constexpr unsigned long cli_passthrough_max_answer = 16777216;

// Sends `size` bytes to "zol_cli"; 0, or -2 when a send failed. No more than one message is built at a time.
int cli_passthrough_response(int fd, msgtype_e type, const char* source, const char* data,
                             unsigned long size);

// Sends a request and collects the whole answer. On success `*answer` is a malloc block that the caller
// frees, with a NUL behind the data; on failure it is null. Blocks for up to 1000 ms for each piece of the
// answer. A request of more than cli_passthrough_max_data bytes isn't sent (-5).
int cli_passthrough_request(int fd, msgtype_e type, const char* destination, const char* data,
                            unsigned long size, char** answer);
// Sends the text with its terminating NUL.
int cli_passthrough_request(int fd, msgtype_e type, const char* destination, const std::string& text,
                            char** answer);

// Copies the data of a record into a malloc block that the caller frees. The message has been received whole:
// its `length` is only held to cli_passthrough_max_data here (-4 beyond it).
int cli_passthrough_get_arg(unsigned char* message, char** data, unsigned long* size);
// Without the last byte, which is the terminator.
int cli_passthrough_get_arg(unsigned char* message, std::string& text);

const char* cli_passthrough_error(int result);
