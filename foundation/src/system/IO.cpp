#include <basalt/IO.h>
#include <basalt/StringUtil.h>
#include "internal/system/ContiguousReader.h"

#include <algorithm>
#include <cstring>

namespace Basalt {

Reader::~Reader() = default;
Writer::~Writer() = default;
StringReader::~StringReader() = default;
StringWriter::~StringWriter() = default;

namespace {

class StringReaderImpl final : public ObjectImpl, public StringReader, public ContiguousReader {
  public:
    explicit StringReaderImpl(std::string_view text) : m_text(text) {}

    std::string_view TakeRemaining() override {
        std::string_view rest = std::string_view(m_text).substr(m_position);
        m_position = m_text.size();
        return rest;
    }

    size_t Read(char* buffer, size_t size) override {
        size_t count = std::min(size, m_text.size() - m_position);
        std::memcpy(buffer, m_text.data() + m_position, count);
        m_position += count;
        return count;
    }
    size_t Remaining() const override { return m_text.size() - m_position; }

  private:
    std::string m_text;
    size_t m_position = 0;
};

class StringWriterImpl final : public ObjectImpl, public StringWriter {
  public:
    ~StringWriterImpl() override { StringUtil::SecureWipe(m_text); }

    using Writer::Write;
    void Write(const char* data, size_t size) override {
        if (size > m_text.capacity() - m_text.size()) {
            Grow(m_text.size() + size);
        }
        m_text.append(data, size);
    }
    const std::string& GetString() const override { return m_text; }
    std::string TakeString() override { return std::exchange(m_text, std::string()); }
    void Reserve(size_t size) override {
        if (size > m_text.capacity()) {
            Grow(size);
        }
    }

  private:
    // Moves the text into a larger buffer by hand, wiping the old one (std::string would free
    // it as it is).
    void Grow(size_t needed) {
        std::string larger;
        larger.reserve(std::max(needed, 2 * m_text.capacity()));
        larger.append(m_text);
        StringUtil::SecureWipe(m_text);
        m_text.swap(larger);
    }

    std::string m_text;
};

}  // namespace

void CreateStringReader(std::string_view text, Ref<StringReader>& reader) {
    reader = new StringReaderImpl(text);
}

void CreateStringWriter(Ref<StringWriter>& writer) {
    writer = new StringWriterImpl();
}

}  // namespace Basalt
