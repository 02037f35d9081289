// What a page asks of the board: the bodies of the view's POST requests,
// checked before anything acts on them.
//
//   POST /api/line    {"name": "lora_check", "level": 1}
//   POST /api/serial  {"path": "/dev/ttyS7", "text": "hello\n", "from": "far_end"}
//                     ("from": "far_end", the default, sends as the peer
//                     device; "board" writes as a process on the board)
//   POST /api/knob    {"name": "fpga.done", "value": "never"}   ("" clears it)
//
// parse_request only looks at the bytes: the names it returns are checked
// against the board by the server (an unknown line is 404, an output 409).
#ifndef VEXA_VIEW_REQUEST_H
#define VEXA_VIEW_REQUEST_H

#include <string>

namespace vexa::view {

struct Request {
    enum class Kind { line, serial, knob } kind = Kind::line;
    std::string name;  // line: the control's name; serial: the board path; knob: MODEL.KNOB
    int level = 0;     // line: 0 or 1
    std::string value; // serial: the bytes to send; knob: the value
    bool from_board = false; // serial: written on the board side
};

// The most a body may hold, and the most a serial request carries.
constexpr size_t kMaxBody = 16 * 1024;
constexpr size_t kMaxSerialBytes = 4096;

struct ParseResult {
    bool ok = false;
    Request request;
    int status = 400;  // when not ok: the HTTP status to answer
    std::string error; // when not ok: one line for the page
};

// route is "/api/line", "/api/serial" or "/api/knob"; body the request's
// bytes. Refuses (400) a body that is not a JSON object of the route's
// fields with their types, a name that is empty, longer than 128 bytes or
// holds a control character, a level other than 0 or 1, a serial text past
// kMaxSerialBytes, a knob value past 128 bytes or with a control character;
// 404 for another route.
ParseResult parse_request(const std::string &route, const std::string &body);

} // namespace vexa::view

#endif
