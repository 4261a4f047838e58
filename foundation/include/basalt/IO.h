#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <basalt/Object.h>

namespace Basalt {

// A source of bytes read in order.
class BASALT_API Reader : public virtual Object {
  public:
    // Copies up to size bytes into buffer; returns how many, 0 only at the end of the input.
    // Throws a Basalt::Exception if the source fails.
    virtual size_t Read(char* buffer, size_t size) = 0;

  protected:
    ~Reader() override;
};

// A sink of bytes written in order.
class BASALT_API Writer : public virtual Object {
  public:
    // Appends size bytes; throws a Basalt::Exception if the sink fails.
    virtual void Write(const char* data, size_t size) = 0;
    void Write(std::string_view text) { Write(text.data(), text.size()); }

  protected:
    ~Writer() override;
};

// A reader over a private copy of a text.
class BASALT_API StringReader : public virtual Reader {
  public:
    // Bytes not yet read.
    virtual size_t Remaining() const = 0;

  protected:
    ~StringReader() override;
};

// A writer that accumulates what it is given in memory. What it holds may be secret (a request
// with a password): the buffers it outgrows, and the one it holds when it goes, are wiped before
// they are freed. A string taken out with TakeString is the caller's to wipe.
class BASALT_API StringWriter : public virtual Writer {
  public:
    // What has been written so far.
    virtual const std::string& GetString() const = 0;
    // Moves the accumulated text out, leaving the writer empty.
    virtual std::string TakeString() = 0;
    // Makes room for size bytes in all, so that text written later is not copied around while
    // the buffer grows.
    virtual void Reserve(size_t size) = 0;

  protected:
    ~StringWriter() override;
};

// Makes a reader over a copy of text (the caller's buffer need not outlive it).
BASALT_API void CreateStringReader(std::string_view text, Ref<StringReader>& reader);
// Makes an empty string writer.
BASALT_API void CreateStringWriter(Ref<StringWriter>& writer);

}  // namespace Basalt
