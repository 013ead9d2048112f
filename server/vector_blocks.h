// For looking at several characters of text at once. Compilers turn these types into vector code at
// every level of optimisation, which they do not reliably do with a loop.

#pragma once

#include <QtGlobal>

#include <cstring>

constexpr qsizetype BlockBytes = 16;
constexpr qsizetype BlockUnits = 8; // of UTF-16

using Bytes = qint8 __attribute__((vector_size(BlockBytes)));
using Units = qint16 __attribute__((vector_size(BlockUnits * 2)));
using NarrowUnits = qint8 __attribute__((vector_size(BlockUnits))); // known to be ASCII

template <typename Block> Block loadBlock(const void *from)
{
    Block block;
    std::memcpy(&block, from, sizeof block);
    return block;
}

// Whether a comparison of blocks holds for any element.
template <typename Block> bool any(Block comparison)
{
    quint64 halves[2];
    static_assert(sizeof comparison == sizeof halves);
    std::memcpy(halves, &comparison, sizeof halves);
    return (halves[0] | halves[1]) != 0;
}
