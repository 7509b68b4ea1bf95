#pragma once

#include "containers/list.h"
#include "dynstring/create.h"

#include <memmanager/strlist.h>

// String lists: lists whose objects are strings.
namespace memm::lists {

// The text of an item; empty where it is no string.
const char *text_of_item(const void *item) noexcept;

// Appends a new string made of the text. What was made and finds no node is given back.
Result append_text(Held, Node **plist, const char *text, int poolid, int strpool) noexcept;

// One step of the cursor over the strings of a list (see llist_enum_dynstr()).
dynstr *resume_strings(Node *list, int *index, void **cursor) noexcept;

// A list under construction from new strings; what finds no record or no node is left out.
class StringListBuilder {
    Held held_;
    int poolid_;
    Node *first_ = nullptr;
    Tail tail_{&first_};

public:
    StringListBuilder(Held held, int poolid) noexcept : held_(held), poolid_(poolid) {}
    StringListBuilder(const StringListBuilder &) = delete;
    StringListBuilder &operator=(const StringListBuilder &) = delete;

    void add(dynstr *string) noexcept
    {
        if (string == nullptr) {
            return;
        }
        if (Node *const node = make_node(held_, poolid_, string); node != nullptr) {
            tail_.append(node);
        } else {
            static_cast<void>(release(held_, string));
        }
    }
    Node *list() const noexcept { return first_; }
};

}  // namespace memm::lists
