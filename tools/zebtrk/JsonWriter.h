// JsonWriter: builds JSON text for `ls --json`: objects, arrays, strings
// (escaped per RFC 8259: quote, backslash and control characters; UTF-8 is
// copied as it is, and a byte that is not valid UTF-8 becomes U+FFFD so the
// document stays valid whatever bytes a movie name holds) and unsigned
// numbers.
// Commas are placed by the writer; the caller nests Begin/End correctly.
//
// A plain value; one thread.
#pragma once

#include <string>
#include <vector>

class JsonWriter {
 public:
  void BeginObject();
  void EndObject();
  void BeginArray();
  void EndArray();
  // An object member's name; the next value belongs to it.
  void Key(const std::string& name);
  void String(const std::string& value);
  void Number(unsigned long value);
  // A finite number with up to `digits` significant digits ("29.97").
  void Decimal(double value, int digits = 9);
  void Null();

  const std::string& text() const { return m_text; }

  // `value` as a JSON string literal, quotes included.
  static std::string Quote(const std::string& value);

 private:
  // Writes the comma before a value or key when one is due.
  void Separate();

  std::string m_text;
  std::vector<bool> m_hasItems;  // per open container: something written yet
  bool m_afterKey = false;
};
