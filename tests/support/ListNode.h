/// @file ListNode.h
/// Nodes with a key of every kind, and a list that shows how much it has allocated.
#ifndef LIST_NODE_H
#define LIST_NODE_H

#include <stdint.h>
#include <stdio.h>

#include "tq_List_p.h"

namespace test {

/// A node with a key of every kind. The numbers lie at odd addresses.
struct __attribute__((packed)) Node {
    char id;
    uint32_t number;
    uint16_t half;
    uint8_t byte;
    const char* pszText;
    char text[16];
};

inline Node Numbered(uint32_t number, char id = ' ') {
    Node node = {};
    node.id = id;
    node.number = number;
    node.half = static_cast<uint16_t>(number);
    node.byte = static_cast<uint8_t>(number);
    return node;
}

inline Node Named(const char* pszText, char id = ' ') {
    Node node = {};
    node.id = id;
    node.pszText = pszText;
    snprintf(node.text, sizeof(node.text), "%s", pszText ? pszText : "");
    return node;
}

/// A list whose inside can be looked at.
struct OpenListBase : tq_List {
    using tq_List::m_li;
    using tq_List::tq_List;

    unsigned int Blocks() const {
        unsigned int blocks = 0;
        for (const _LIST_BLOCK* pBlock = m_li.pListBlock; pBlock; pBlock = pBlock->pNext) {
            ++blocks;
        }
        return blocks;
    }
};

} // namespace test

#endif // LIST_NODE_H
