// Text put together as UTF-8 and handed on in pieces. Pure; allocates nothing.
//
// Threads: none; an object belongs to one thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zel {

class Utf8Writer {
 public:
  // Takes the next `count` bytes. Called when the buffer is full and at the end; a character is
  // never parted.
  using Take = void (*)(void* target, const char* bytes, std::size_t count);

  Utf8Writer(Take take, void* target) : take_(take), target_(target) {}
  ~Utf8Writer() { Flush(); }
  Utf8Writer(const Utf8Writer&) = delete;
  Utf8Writer& operator=(const Utf8Writer&) = delete;

  // UTF-16 (UTF-32 where wchar_t is wider); a lone surrogate becomes U+FFFD.
  void Wide(std::wstring_view text);

  // Text known to be ASCII, at most kLongestAscii characters.
  void Ascii(std::string_view text);
  static constexpr std::size_t kLongestAscii = 128;

  // Bytes as Latin-1, which the C locale takes them for; system texts are ASCII.
  void Narrow(std::string_view text);

  enum class Digits { kDecimal, kLowerHex, kUpperHex };
  struct NumberLayout {
    Digits digits = Digits::kDecimal;
    std::size_t width = 0;  // at least, at most kWidestNumber; filled from the left
    char fill = ' ';
  };
  // `negative` puts a minus sign before the digits (before a fill of zeros, behind one of blanks).
  void Number(std::uint64_t magnitude, bool negative, const NumberLayout& layout);
  static constexpr std::size_t kWidestNumber = 60;

  // How many wide characters were written so far, as a wide printf would report.
  [[nodiscard]] std::size_t characters() const { return characters_; }

 private:
  static constexpr std::size_t kBufferBytes = 1024;
  static constexpr std::size_t kLongestCharacter = 4;

  // Copies the leading ASCII characters that fit the buffer and returns how many they are.
  template <class Char>
  std::size_t CopyAscii(std::basic_string_view<Char> text);
  void CodePoint(char32_t code_point);
  void Byte(unsigned value) { buffer_[used_++] = static_cast<char>(value); }
  void Flush();

  Take take_;
  void* target_;
  std::size_t used_ = 0;
  std::size_t characters_ = 0;
  std::array<char, kBufferBytes> buffer_;
};

}  // namespace zel
