#pragma once

#include <cstddef>

/// \file
/// How lists are sorted.
///
/// What a list looks like once it is sorted is told by a plain rule: pass over all adjacent pairs
/// and swap those of which the left one is greater, until a pass swaps nothing. For long lists
/// that takes too long. They are merged, to the same result:
///
/// - for every order, with equal elements as they stood;
/// - where neither of two elements is greater, but only one of them is greater than a third, as
///   among names of which some are the beginnings of others. Such a relation, as long as what is
///   greater than the greater is greater, leaves the passes one result, whatever they swap first:
///   two elements change places only when the one that stood in front is greater. A merged list
///   is looked over for that, and taken only when it holds. Where many elements are alike, these
///   are many comparisons: after four million, or 16 for each element, the rest is believed, so
///   that the look is exhaustive up to four thousand elements, and far beyond where no more than
///   some hundreds are alike;
/// - for short lists with any comparison, for they are sorted by passes;
/// - where a comparison is seen to be no order, since then, too, passes are made. But where each
///   of two elements is greater than the other, as with "greater or equal", passes would not end,
///   and the merged list is taken.
///
/// While elements are compared they stay where they are, so that a comparison that throws, or is
/// left otherwise, leaves the list in the order that it had; in passes, permuted. Who leaves one by
/// a jump, which destroys nothing, loses six bytes of memory for each element.

/// Sorts an array of elements that are moved as bytes.
/// \param compare  negative, zero or positive as in qsort(), given pointers into the array.
/// \param elements the array.
/// \param count    its elements.
/// \param size     bytes of an element.
/// \param scratch  room for one element.
/// \return whether no element was greater than the next one.
/// \throws std::bad_alloc only when passes come round to what was before, and there is no memory
///         to notice it.
bool sortElements(int (*compare)(const void*, const void*), void* elements, unsigned count,
                  std::size_t size, void* scratch);
