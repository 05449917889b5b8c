#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <compare>
#include <concepts>
#include <optional>
#include <span>
#include <string_view>

#include "Kel/Exception.h"
#include "Kel/Types.h"

// Bounded index types and the fixed arrays they index, as the statistics
// table stores them: plain bytes that can be copied into shared memory.
namespace Vorpa::Ipfix {

// A type's name as a template argument, for the text of its range error.
template <std::size_t N>
struct IndexName {
   constexpr IndexName(const char (&text)[N]) { std::copy_n(text, N, chars); }
   char chars[N];
};

// An index in [min(), max()]. Making one outside, directly or by arithmetic,
// raises Kel::RangeException "<Name>::value < <Name>::min or > <Name>::max not
// allowed".
template <IndexName name, Kel::U8 maxValue>
class BoundedIndex {
 public:
   static constexpr Kel::U8 min() { return 0; }
   static constexpr Kel::U8 max() { return maxValue; }

   constexpr BoundedIndex() = default;
   template <std::integral I>
   explicit BoundedIndex(I value) : value_(checked(static_cast<long long>(value))) {}

   Kel::U8 value() const { return value_; }

   template <std::integral I>
   BoundedIndex& operator+=(I n) {
      value_ = checked(static_cast<long long>(value_) + static_cast<long long>(n));
      return *this;
   }
   template <std::integral I>
   BoundedIndex operator+(I n) const {
      BoundedIndex sum = *this;
      return sum += n;
   }
   auto operator<=>(const BoundedIndex&) const = default;

   // Decimal text; nullopt when it is not a number in range.
   static std::optional<BoundedIndex> parse(std::string_view text) {
      unsigned value = 0;
      const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
      if (text.empty() || ec != std::errc() || end != text.data() + text.size() || value > max()) {
         return std::nullopt;
      }
      return BoundedIndex(value);
   }

 private:
   static Kel::U8 checked(long long value) {
      if (value < min() || value > max()) {
         throw Kel::RangeException(
             fmt::format("{0}::value < {0}::min or > {0}::max not allowed", name.chars));
      }
      return static_cast<Kel::U8>(value);
   }

   Kel::U8 value_ = 0;
};

using StringIndex = BoundedIndex<"StringIndex", 127>;
using SetIndex = BoundedIndex<"SetIndex", 12>;

// A fixed array of Index::max() + 1 items indexed by Index, of which the first
// size() are in use.
template <class T, class Index>
class IndexedArray {
 public:
   static constexpr std::size_t capacity = Index::max() + 1;

   std::size_t size() const { return used_; }
   const T& operator[](Index i) const { return items_[i.value()]; }
   T& operator[](Index i) { return items_[i.value()]; }
   std::span<const T> used() const { return {items_.data(), used_}; }
   // All items, the unused ones value-initialised (sizeIs keeps them so).
   const std::array<T, capacity>& all() const { return items_; }

   // Grows or shrinks the used part; items beyond it are reset so that no
   // stale value lingers in the table's memory.
   void sizeIs(std::size_t size) {
      KEL_ASSERT(size <= capacity);
      std::fill(items_.begin() + static_cast<std::ptrdiff_t>(size), items_.end(), T{});
      used_ = static_cast<Kel::U8>(size);
   }

   // False when the used length read from another process's memory is
   // impossible.
   bool vorpaValid() const { return used_ <= capacity; }

   bool operator==(const IndexedArray& other) const {
      return std::ranges::equal(used(), other.used());
   }

 private:
   std::array<T, capacity> items_{};
   Kel::U8 used_ = 0;
};

}  // namespace Vorpa::Ipfix
