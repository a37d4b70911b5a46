#include "faults.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>

#include "frame.h"
#include "json.h"

namespace arvok::lab {
namespace {

struct Word {
    const char *word;
    FaultKind kind;
};

constexpr std::array<Word, 12> words{{
    {"none", FaultKind::none},
    {"drop", FaultKind::drop},
    {"delay", FaultKind::delay},
    {"bad_magic", FaultKind::bad_magic},
    {"bad_length", FaultKind::bad_length},
    {"truncated_body", FaultKind::truncated_body},
    {"wrong_key", FaultKind::wrong_key},
    {"bad_json", FaultKind::bad_json},
    {"edit", FaultKind::edit},
    {"close", FaultKind::close},
    {"silent", FaultKind::silent},
    {"refuse", FaultKind::refuse},
}};

// Types of the agent's messages that get an answer.
constexpr std::array answered_types{"keyngreq",   "dh",         "dev_reg", "keepalive", "wan_report",
                                    "dev_report", "map_report", "cfg",     "event",     "ubus_notify"};

bool contains(const auto &list, const char *text) {
    return std::any_of(list.begin(), list.end(),
                       [text](const char *entry) { return !std::strcmp(entry, text); });
}

}  // namespace

const char *Fault::word() const {
    return std::find_if(words.begin(), words.end(), [this](const Word &row) { return row.kind == kind; })
        ->word;
}

std::string Faults::arm(const cJSON *arguments) {
    const char *word = string_member(arguments, "fault");
    if (!word)
        return "\"fault\" is missing";
    const auto row = std::find_if(words.begin(), words.end(),
                                  [word](const Word &w) { return !std::strcmp(w.word, word); });
    if (row == words.end())
        return std::string("unknown fault \"") + word + "\"";
    if (row->kind == FaultKind::none) {
        armed_.clear();
        return {};
    }

    Fault fault;
    fault.kind = row->kind;
    fault.length = frame_max_body + 1;
    if (row->kind == FaultKind::silent)
        fault.times = 0;
    if (cJSON_GetObjectItemCaseSensitive(arguments, "on")) {
        const char *on = string_member(arguments, "on");
        if (!on || !contains(answered_types, on))
            return std::string("\"on\" names no message that is answered: ") + (on ? on : "not a text");
        fault.on = on;
    }
    if (!read_integer(arguments, "times", 0, INT_MAX, fault.times) ||
        !read_integer(arguments, "length", 0, UINT32_MAX, fault.length) ||
        !read_integer(arguments, "delay", 0, INT_MAX, fault.delay) ||
        !read_integer(arguments, "after", 0, INT_MAX, fault.after))
        return "\"times\", \"length\", \"delay\" and \"after\" are whole numbers from 0 on";

    if (fault.after > 0 && (!fault.on.empty() || fault.times != 1))
        return "\"after\" counts all messages, once: it goes without \"on\" and \"times\"";

    const cJSON *set = cJSON_GetObjectItemCaseSensitive(arguments, "set");
    if ((row->kind == FaultKind::edit) != cJSON_IsObject(set))
        return "\"set\" is the object that goes with \"edit\"";
    if (set)
        fault.set.reset(cJSON_Duplicate(set, 1), JsonRelease());

    std::erase_if(armed_, [&fault](const Fault &earlier) {
        return earlier.on == fault.on &&
               (earlier.kind == FaultKind::refuse) == (fault.kind == FaultKind::refuse);
    });
    armed_.push_back(std::move(fault));
    return {};
}

std::optional<Fault> Faults::take(std::string_view answered) {
    const auto fault = std::find_if(armed_.begin(), armed_.end(), [answered](const Fault &armed) {
        if (armed.kind == FaultKind::refuse || armed.after > 0)
            return false;
        // A silent gateway still sends what it is told to send over the bus.
        if (armed.kind == FaultKind::silent && answered.empty())
            return false;
        return armed.on.empty() || armed.on == answered;
    });
    if (fault == armed_.end())
        return std::nullopt;
    return use(fault);
}

bool Faults::close_due() {
    const auto fault = std::find_if(armed_.begin(), armed_.end(), [](const Fault &armed) {
        return armed.kind == FaultKind::close && armed.after > 0;
    });
    if (fault == armed_.end() || --fault->after > 0)
        return false;
    armed_.erase(fault);
    return true;
}

bool Faults::refusing() const {
    return std::any_of(armed_.begin(), armed_.end(),
                       [](const Fault &armed) { return armed.kind == FaultKind::refuse; });
}

std::string Faults::describe() const {
    std::string text;
    for (const Fault &fault : armed_) {
        text += text.empty() ? "" : ", ";
        text += fault.word();
        if (!fault.on.empty())
            text += " on " + fault.on;
    }
    return text.empty() ? "none" : text;
}

Fault Faults::use(std::vector<Fault>::iterator fault) {
    Fault used = *fault;
    if (fault->times > 0 && --fault->times == 0)
        armed_.erase(fault);
    return used;
}

}  // namespace arvok::lab
