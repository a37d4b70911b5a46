#include "calls_table.h"

#include <array>
#include <string_view>

#include "state.h"

namespace arvok::qzcapd {
namespace {

Reply reply(double result) {
    Reply answer;
    answer.body.reset(cJSON_CreateObject());
    put_number(answer.body.get(), "result", result);
    return answer;
}

std::string argument_fault(const Param &param, const cJSON *value) {
    const auto must_be = [&](const char *what) { return std::string(param.name) + ": must be " + what; };
    switch (param.type) {
        case Param::Type::text:
            return cJSON_IsString(value) ? "" : must_be("a text");
        case Param::Type::number:
            return cJSON_IsNumber(value) ? "" : must_be("a number");
        case Param::Type::texts: {
            if (!cJSON_IsArray(value)) {
                return must_be("an array of texts");
            }
            const cJSON *item = nullptr;
            cJSON_ArrayForEach(item, value) {
                if (!cJSON_IsString(item)) {
                    return must_be("an array of texts");
                }
            }
            return "";
        }
        case Param::Type::record:
            return check_record(*param.kind, value, capi::Fields::settable);
    }
    return "";
}

}  // namespace

Reply done() {
    return reply(0);
}

Reply refused(const std::string &reason) {
    Reply answer = reply(-1);
    answer.ok = false;
    put_text(answer.body.get(), "failreason", reason);
    return answer;
}

Reply with_record(json_ptr record) {
    Reply answer = reply(0);
    put(answer.body.get(), "record", std::move(record));
    return answer;
}

Reply with_list(json_ptr array) {
    Reply answer = reply(0);
    put(answer.body.get(), "list", std::move(array));
    return answer;
}

Reply with_text(const std::string &text) {
    Reply answer = reply(0);
    put_text(answer.body.get(), "text", text);
    return answer;
}

Reply with_value(double value) {
    Reply answer = reply(0);
    put_number(answer.body.get(), "value", value);
    return answer;
}

const Row *find_row(const std::string &object, const std::string &method) {
    for (const auto rows : {system_rows(), wifi_rows(), ap_rows(), station_rows(), app_rows()}) {
        for (const Row &row : rows) {
            if (object == row.call->object && method == row.call->method) {
                return &row;
            }
        }
    }
    return nullptr;
}

std::string check_arguments(const Row &row, const cJSON *args) {
    for (const Param &param : row.params) {
        const cJSON *value = get(args, param.name);
        if (value == nullptr) {
            if (param.required) {
                return std::string(param.name) + ": missing";
            }
            continue;
        }
        if (std::string fault = argument_fault(param, value); !fault.empty()) {
            return fault;
        }
    }
    const cJSON *arg = nullptr;
    cJSON_ArrayForEach(arg, args) {
        bool known = false;
        for (const Param &param : row.params) {
            known = known || std::string_view(arg->string) == param.name;
        }
        if (!known) {
            return std::string(arg->string) + ": no such argument";
        }
    }
    return "";
}

Reply stored_record(const World &world, const capi::Record &kind, const std::string &name) {
    const cJSON *stored = get(world.state, name);
    return stored != nullptr ? with_record(project(kind, stored)) : refused("the device has no " + name);
}

Reply set_stored_record(World &world, const capi::Record &kind, const std::string &name, const cJSON *args) {
    if (get(world.state, name) == nullptr) {
        put(world.state, name, json_ptr(cJSON_CreateObject()));
    }
    apply(kind, get(world.state, name), get(args, "record"));
    return done();
}

bool is_one_of(const char *text, const char *first, const char *second) {
    return text != nullptr && (std::string_view(text) == first || std::string_view(text) == second);
}

}  // namespace arvok::qzcapd
