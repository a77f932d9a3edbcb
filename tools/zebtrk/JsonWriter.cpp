#include "tools/zebtrk/JsonWriter.h"

#include <cstdio>

namespace {

// Length of the well-formed UTF-8 sequence at `text[i]` (2 to 4), or 0 when
// the bytes there are not one (overlong forms and surrogates included).
size_t Utf8Length(const std::string& text, size_t i) {
  const unsigned char c = static_cast<unsigned char>(text[i]);
  size_t length;
  unsigned char low = 0x80, high = 0xBF;  // range of the second byte
  if (c >= 0xC2 && c <= 0xDF) {
    length = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    length = 3;
    if (c == 0xE0) low = 0xA0;
    if (c == 0xED) high = 0x9F;
  } else if (c >= 0xF0 && c <= 0xF4) {
    length = 4;
    if (c == 0xF0) low = 0x90;
    if (c == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (i + length > text.size()) return 0;
  for (size_t k = 1; k < length; ++k) {
    const unsigned char next = static_cast<unsigned char>(text[i + k]);
    if (next < (k == 1 ? low : 0x80) || next > (k == 1 ? high : 0xBF)) return 0;
  }
  return length;
}

}  // namespace

std::string JsonWriter::Quote(const std::string& value) {
  std::string out = "\"";
  for (size_t i = 0; i < value.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(value[i]);
    if (c >= 0x80) {
      // JSON text is UTF-8: a byte that starts no valid sequence becomes
      // U+FFFD rather than making the document invalid.
      const size_t length = Utf8Length(value, i);
      if (length == 0) {
        out += "\\ufffd";
      } else {
        out.append(value, i, length);
        i += length - 1;
      }
      continue;
    }
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\f':
        out += "\\f";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20 || c == 0x7F) {
          char escaped[8];
          snprintf(escaped, sizeof(escaped), "\\u%04x", c);
          out += escaped;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

void JsonWriter::Separate() {
  if (m_afterKey) {
    m_afterKey = false;
    return;
  }
  if (m_hasItems.empty()) return;
  if (m_hasItems.back()) m_text += ",";
  m_hasItems.back() = true;
}

void JsonWriter::BeginObject() {
  Separate();
  m_text += "{";
  m_hasItems.push_back(false);
}

void JsonWriter::EndObject() {
  m_hasItems.pop_back();
  m_text += "}";
}

void JsonWriter::BeginArray() {
  Separate();
  m_text += "[";
  m_hasItems.push_back(false);
}

void JsonWriter::EndArray() {
  m_hasItems.pop_back();
  m_text += "]";
}

void JsonWriter::Key(const std::string& name) {
  Separate();
  m_text += Quote(name) + ":";
  m_afterKey = true;
}

void JsonWriter::String(const std::string& value) {
  Separate();
  m_text += Quote(value);
}

void JsonWriter::Number(unsigned long value) {
  Separate();
  m_text += std::to_string(value);
}

void JsonWriter::Decimal(double value, int digits) {
  Separate();
  char text[64];
  snprintf(text, sizeof(text), "%.*g", digits, value);
  m_text += text;
}

void JsonWriter::Null() {
  Separate();
  m_text += "null";
}
