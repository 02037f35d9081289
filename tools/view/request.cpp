#include "tools/view/request.h"

#include <cjson/cJSON.h>

#include <memory>

namespace vexa::view {
namespace {

struct JsonDeleter {
    void operator()(cJSON *item) const { cJSON_Delete(item); }
};

ParseResult refuse(int status, std::string error)
{
    ParseResult result;
    result.status = status;
    result.error = std::move(error);
    return result;
}

bool plain(const std::string &text, size_t max)
{
    if (text.size() > max)
        return false;
    for (unsigned char c : text)
        if (c < 0x20 || c == 0x7f)
            return false;
    return true;
}

// The string member `key` of object, or null when it is missing or not a
// string (cJSON stops a string at a NUL byte, so the length is its own).
const char *string_member(const cJSON *object, const char *key)
{
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(object, key);
    return cJSON_IsString(item) ? item->valuestring : nullptr;
}

} // namespace

ParseResult parse_request(const std::string &route, const std::string &body)
{
    Request request;
    if (route == "/api/line")
        request.kind = Request::Kind::line;
    else if (route == "/api/serial")
        request.kind = Request::Kind::serial;
    else if (route == "/api/knob")
        request.kind = Request::Kind::knob;
    else
        return refuse(404, "no such request");
    if (body.size() > kMaxBody)
        return refuse(413, "the request is too long");
    std::unique_ptr<cJSON, JsonDeleter> root(cJSON_ParseWithLength(body.data(), body.size()));
    if (!root || !cJSON_IsObject(root.get()))
        return refuse(400, "the body is not a JSON object");

    const char *name_key = request.kind == Request::Kind::serial ? "path" : "name";
    const char *name = string_member(root.get(), name_key);
    if (!name || !*name || !plain(name, 128))
        return refuse(400, std::string("\"") + name_key + "\" is a name of up to 128 printable bytes");
    request.name = name;

    switch (request.kind) {
    case Request::Kind::line: {
        const cJSON *level = cJSON_GetObjectItemCaseSensitive(root.get(), "level");
        if (!cJSON_IsNumber(level) || (level->valuedouble != 0 && level->valuedouble != 1))
            return refuse(400, "\"level\" is 0 or 1");
        request.level = level->valuedouble == 1 ? 1 : 0;
        break;
    }
    case Request::Kind::serial: {
        const cJSON *text = cJSON_GetObjectItemCaseSensitive(root.get(), "text");
        if (!cJSON_IsString(text))
            return refuse(400, "\"text\" is the text to send");
        request.value = text->valuestring;
        if (request.value.empty() || request.value.size() > kMaxSerialBytes)
            return refuse(400, "\"text\" holds 1 to " + std::to_string(kMaxSerialBytes) + " bytes");
        if (cJSON_HasObjectItem(root.get(), "from")) {
            const char *from = string_member(root.get(), "from");
            if (!from || (std::string(from) != "far_end" && std::string(from) != "board"))
                return refuse(400, "\"from\" is far_end or board");
            request.from_board = std::string(from) == "board";
        }
        break;
    }
    case Request::Kind::knob: {
        const char *value = string_member(root.get(), "value");
        if (!value || !plain(value, 128))
            return refuse(400, "\"value\" is a value of up to 128 printable bytes");
        request.value = value;
        break;
    }
    }
    ParseResult result;
    result.ok = true;
    result.request = std::move(request);
    return result;
}

} // namespace vexa::view
