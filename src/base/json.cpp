#include "base/json.h"

#include <malloc.h>
#include <string.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "base/memory.h"

namespace arvok::json {

// One of the pieces in which memory is got, with what is taken from it behind it.
struct document::block {
    block *before;
    std::size_t size, used;
    std::size_t whole;  ///< size of all blocks up to this one

    void *take(std::size_t bytes) {
        void *begin = reinterpret_cast<char *>(this + 1) + used;
        used += bytes;
        return begin;
    }
};

// Texts of a message may be keys and tokens: they are overwritten as all memory is that is deleted.
void document::release::operator()(block *newest) const {
    while (newest)
        ::operator delete(std::exchange(newest, newest->before));
}

namespace {

// The newest block of the document that is being parsed, if one is. The library asks for memory without
// saying what for.
document::block **filling;

constexpr std::size_t first_block = 1000;  // enough for most messages
constexpr std::size_t block_max = std::size_t{32} * 1024;

// Of a document. The longest message of a peer takes a quarter of it; what objects of the bus say has other
// bounds, and a number of it can take six times as much here.
constexpr std::size_t document_max = std::size_t{2} * 1024 * 1024;

void *take(std::size_t size) {
    if (!filling)
        return allocate(size);
    size = (size + alignof(cJSON) - 1) / alignof(cJSON) * alignof(cJSON);
    document::block *const newest = *filling;
    if (newest && newest->size - newest->used >= size)
        return newest->take(size);
    const std::size_t usual = newest ? std::min(newest->size * 2, block_max) : first_block;
    const std::size_t room = std::max(usual, size);
    const std::size_t whole = room + (newest ? newest->whole : 0);
    if (whole > document_max)
        return nullptr;
    *filling = new (::operator new(sizeof(document::block) + room)) document::block{newest, room, 0, whole};
    return (*filling)->take(size);
}

void give_back(void *memory) {
    if (filling || !memory)
        return;
    explicit_bzero(memory, malloc_usable_size(memory));
    std::free(memory);
}

std::string print_node(const cJSON *node) {
    const handle<char, &give_back> text(node ? cJSON_PrintUnformatted(node) : nullptr);
    return std::string(view_of(text.get()));
}

}  // namespace

document parse(const char *text) {
    cJSON_Hooks hooks{.malloc_fn = take, .free_fn = give_back};
    cJSON_InitHooks(&hooks);
    document::block *newest = nullptr;
    document parsed;
    filling = &newest;
    parsed.root_ = cJSON_Parse(text);
    filling = nullptr;
    parsed.memory_.reset(newest);
    return parsed;
}

namespace {

bool finite(const cJSON *number) {
    return number->valuedouble - number->valuedouble == 0;
}

}  // namespace

view view::operator[](const char *name) const {
    for (const view member : *this)
        if (member.node_->string && *member.node_->string == *name &&
            std::strcmp(member.node_->string, name) == 0)
            return member;
    return {};
}

std::optional<std::string_view> view::text() const {
    if (!is_text())
        return std::nullopt;
    return std::string_view(node_->valuestring);
}

std::optional<double> view::number() const {
    if (!is_number())
        return std::nullopt;
    return finite(node_) ? node_->valuedouble : 0;
}

std::optional<int> view::integer() const {
    if (!is_number())
        return std::nullopt;
    return finite(node_) ? node_->valueint : 0;
}

std::string view::print() const {
    return print_node(node_);
}

}  // namespace arvok::json
