#include "statistics.h"

#include <algorithm>
#include <ctime>

namespace arvok::lab {
namespace {

void add_number(cJSON *object, const char *name, std::int64_t value) {
    cJSON_AddNumberToObject(object, name, static_cast<double>(value));
}

}  // namespace

void Statistics::answered(std::string_view method, bool good) {
    const auto row = std::find(methods.begin(), methods.end(), method);
    if (!good)
        refused_++;
    else if (row != methods.end())
        answered_[static_cast<std::size_t>(row - methods.begin())]++;
}

json_ptr Statistics::Passed::describe() const {
    json_ptr object(cJSON_CreateObject());
    add_number(object.get(), "frames", frames);
    add_number(object.get(), "bytes", bytes);
    return object;
}

void Statistics::describe(cJSON *object) const {
    add_number(object, "accepted", accepted_);
    cJSON_AddItemToObject(object, "received", received_.describe().release());
    cJSON_AddItemToObject(object, "sent", sent_.describe().release());
    cJSON *by_method = cJSON_AddObjectToObject(object, "answered");
    for (std::size_t row = 0; row < methods.size(); row++)
        add_number(by_method, methods[row].data(), answered_[row]);
    add_number(object, "refused", refused_);
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    add_number(object, "cpu_ms", used.tv_sec * std::int64_t{1000} + used.tv_nsec / 1000000);
}

}  // namespace arvok::lab
