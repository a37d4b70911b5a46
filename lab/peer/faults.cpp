#include "faults.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>

#include "json.h"

namespace arvok::lab {
namespace {

struct Word {
    const char *word;
    FaultKind kind;
};

constexpr std::array words{
    Word{"none", FaultKind::none},
    Word{"drop", FaultKind::drop},
    Word{"delay", FaultKind::delay},
    Word{"bad_magic", FaultKind::bad_magic},
    Word{"bad_length", FaultKind::bad_length},
    Word{"truncated_body", FaultKind::truncated_body},
    Word{"fill", FaultKind::fill},
    Word{"no_crlf", FaultKind::no_crlf},
    Word{"bad_base64", FaultKind::bad_base64},
    Word{"wrong_key", FaultKind::wrong_key},
    Word{"bad_json", FaultKind::bad_json},
    Word{"edit", FaultKind::edit},
    Word{"split", FaultKind::split},
    Word{"repeat", FaultKind::repeat},
    Word{"prefix", FaultKind::prefix},
    Word{"close", FaultKind::close},
    Word{"silent", FaultKind::silent},
    Word{"hang_up", FaultKind::hang_up},
    Word{"refuse", FaultKind::refuse},
};

constexpr int most_copies = 1000;
// The body that a header announces need not be there; one that is filled up has to be.
constexpr std::uint32_t longest_body = 1 << 20;

bool contains(const auto &list, const char *text) {
    return std::any_of(list.begin(), list.end(),
                       [text](const char *entry) { return !std::strcmp(entry, text); });
}

// Faults of connections stand beside faults of answers.
bool of_connections(FaultKind kind) {
    return kind == FaultKind::refuse || kind == FaultKind::hang_up;
}

bool same_place(const Fault &a, const Fault &b) {
    return a.on == b.on && a.server == b.server &&
           (of_connections(a.kind) || of_connections(b.kind) ? a.kind == b.kind : true);
}

// Takes the object that goes with one kind of fault, and with no other.
bool read_object(const cJSON *arguments, const char *name, bool wanted, std::shared_ptr<const cJSON> &value) {
    const cJSON *member = cJSON_GetObjectItemCaseSensitive(arguments, name);
    if (wanted != static_cast<bool>(cJSON_IsObject(member)) || (member && !wanted))
        return false;
    if (member)
        value.reset(cJSON_Duplicate(member, 1), JsonRelease());
    return true;
}

}  // namespace

bool read_pace(const cJSON *arguments, Pace &pace) {
    return read_integer(arguments, "split", 1, 1 << 20, pace.split) &&
           read_integer(arguments, "interval", 0, longest_wait, pace.interval);
}

const char *Fault::word() const {
    return std::find_if(words.begin(), words.end(), [this](const Word &row) { return row.kind == kind; })
        ->word;
}

bool Fault::at(std::string_view where) const {
    return server.empty() || where == server || (where.starts_with(server) && where[server.size()] == ':');
}

std::string Faults::arm(const cJSON *arguments) {
    const char *word = string_member(arguments, "fault");
    if (!word)
        return "\"fault\" is missing";
    const auto row = std::find_if(words.begin(), words.end(), [&](const Word &w) {
        return !std::strcmp(w.word, word) &&
               (w.kind == FaultKind::none || std::find(vocabulary_.kinds.begin(), vocabulary_.kinds.end(),
                                                       w.kind) != vocabulary_.kinds.end());
    });
    if (row == words.end())
        return std::string("unknown fault \"") + word + "\"";
    if (row->kind == FaultKind::none) {
        armed_.clear();
        return {};
    }

    Fault fault;
    fault.kind = row->kind;
    fault.length = vocabulary_.bad_length;
    if (row->kind == FaultKind::silent)
        fault.times = 0;
    if (cJSON_GetObjectItemCaseSensitive(arguments, "on")) {
        const char *on = string_member(arguments, "on");
        if (!on || !contains(vocabulary_.answered, on))
            return std::string("\"on\" names no message that is answered: ") + (on ? on : "not a text");
        fault.on = on;
    }
    if (of_connections(fault.kind) && !fault.on.empty())
        return "\"on\" is for answers, not for connections";
    if (const char *server = string_member(arguments, "server"))
        fault.server = server;
    if (!read_integer(arguments, "times", 0, INT_MAX, fault.times) ||
        !read_integer(arguments, "length", 0, fault.kind == FaultKind::fill ? longest_body : UINT32_MAX,
                      fault.length) ||
        !read_integer(arguments, "delay", 0, INT_MAX, fault.delay) ||
        !read_integer(arguments, "after", 0, INT_MAX, fault.after))
        return "\"times\", \"length\", \"delay\" and \"after\" are whole numbers from 0 on, within reason";
    if (!read_integer(arguments, "copies", 1, most_copies, fault.copies) || !read_pace(arguments, fault.pace))
        return "\"copies\" and \"split\" are whole numbers from 1 on, \"interval\" from 0 on";

    if (fault.after > 0 && (!fault.on.empty() || fault.times != 1))
        return "\"after\" counts all messages, once: it goes without \"on\" and \"times\"";
    if (!read_object(arguments, "set", fault.kind == FaultKind::edit, fault.set))
        return "\"set\" is the object that goes with \"edit\"";
    if (!read_object(arguments, "message", fault.kind == FaultKind::prefix, fault.message))
        return "\"message\" is the object that goes with \"prefix\"";

    std::erase_if(armed_, [&fault](const Fault &earlier) { return same_place(earlier, fault); });
    armed_.push_back(std::move(fault));
    return {};
}

std::optional<Fault> Faults::take(std::string_view answered, std::string_view where) {
    const auto fault = std::find_if(armed_.begin(), armed_.end(), [&](const Fault &armed) {
        if (of_connections(armed.kind) || armed.after > 0 || !armed.at(where))
            return false;
        // A silent peer still sends what it is told to send over the bus.
        if (armed.kind == FaultKind::silent && answered.empty())
            return false;
        return armed.on.empty() || armed.on == answered;
    });
    if (fault == armed_.end())
        return std::nullopt;
    return use(fault);
}

bool Faults::close_due(std::string_view where) {
    const auto fault = std::find_if(armed_.begin(), armed_.end(), [where](const Fault &armed) {
        return armed.kind == FaultKind::close && armed.after > 0 && armed.at(where);
    });
    if (fault == armed_.end() || --fault->after > 0)
        return false;
    armed_.erase(fault);
    return true;
}

bool Faults::hang_up_due(std::string_view where) {
    const auto fault = std::find_if(armed_.begin(), armed_.end(), [where](const Fault &armed) {
        return armed.kind == FaultKind::hang_up && armed.at(where);
    });
    if (fault == armed_.end())
        return false;
    use(fault);
    return true;
}

bool Faults::refusing(std::string_view where) const {
    return std::any_of(armed_.begin(), armed_.end(), [where](const Fault &armed) {
        return armed.kind == FaultKind::refuse && armed.at(where);
    });
}

std::string Faults::describe() const {
    std::string text;
    for (const Fault &fault : armed_) {
        text += text.empty() ? "" : ", ";
        text += fault.word();
        if (!fault.on.empty())
            text += " on " + fault.on;
        if (!fault.server.empty())
            text += " at " + fault.server;
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
