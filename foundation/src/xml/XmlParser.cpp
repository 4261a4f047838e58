// The hardened parser: libxml2's SAX2 tree builder behind per-context options and hooks that
// refuse DOCTYPEs, bound depth, size and attribute counts, and record where each element began.

#include <libxml/SAX2.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/xmlerror.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <basalt/Exception.h>
#include <basalt/Xml.h>
#include "internal/system/ContiguousReader.h"
#include "internal/xml/XmlInternal.h"

namespace Basalt {
namespace Xml {

XMLHandler::~XMLHandler() = default;
XMLParser::~XMLParser() = default;

namespace {

// No entity substitution, no DTD loading or validation, no network, no XInclude, no recovery,
// no "huge" limits; errors are collected through the structured handler, never printed.
constexpr int kParseOptions =
    XML_PARSE_NONET | XML_PARSE_NODICT | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;

struct ParseState {
    const ParserLimits* limits = nullptr;
    std::vector<DocOwner::Position> positions;
    bool failed = false;
    std::string message;
    int line = 0;
    int column = 0;
};

ParseState& StateOf(void* context) {
    return *static_cast<ParseState*>(static_cast<xmlParserCtxt*>(context)->_private);
}

void Fail(xmlParserCtxt* ctxt, const std::string& message) {
    ParseState& state = StateOf(ctxt);
    if (!state.failed) {
        state.failed = true;
        state.message = message;
        state.line = ctxt->input ? ctxt->input->line : 0;
        state.column = ctxt->input ? ctxt->input->col : 0;
    }
    xmlStopParser(ctxt);
}

bool IsUtf8Continuation(xmlChar c) {
    return (c & 0xC0) == 0x80;
}

// UTF-8 continuation bytes in [begin, end): libxml2 counts columns in characters. Tags are mostly
// ASCII, which a word-at-a-time test settles without looking at each byte.
int CountContinuations(const xmlChar* begin, const xmlChar* end) {
    uint64_t highBits = 0;
    const xmlChar* p = begin;
    for (; end - p >= 8; p += 8) {
        uint64_t word;
        memcpy(&word, p, sizeof word);
        highBits |= word;
    }
    for (; p < end; ++p) {
        highBits |= *p;
    }
    if ((highBits & 0x8080808080808080ULL) == 0) {
        return 0;
    }
    int continuations = 0;
    for (p = begin; p < end; ++p) {
        continuations += IsUtf8Continuation(*p);
    }
    return continuations;
}

// Line and column of the '<' that opened the start tag the parser has just read (libxml2 is
// left just before its '>', and an attribute value cannot hold a literal '<').
std::pair<int, int> StartTagPosition(const xmlParserInput* input) {
    const xmlChar* begin = input->base;
    const xmlChar* end = input->cur;
    const auto* found = static_cast<const xmlChar*>(memrchr(begin, '<', end - begin));
    const xmlChar* open = found ? found : begin;
    const size_t length = static_cast<size_t>(end - open);
    if (memchr(open, '\n', length) == nullptr) {  // the usual case: one line
        return {input->line, input->col - static_cast<int>(length) + CountContinuations(open, end)};
    }
    int newlines = 0;
    for (const xmlChar* p = open; p < end; ++p) {
        newlines += *p == '\n';
    }
    // A start tag spread over several lines: count back to the line's beginning.
    int column = 1;
    for (const xmlChar* p = open; p > begin && p[-1] != '\n'; --p) {
        column += IsUtf8Continuation(p[-1]) ? 0 : 1;
    }
    return {input->line - newlines, column};
}

void OnStartElement(void* context, const xmlChar* localName, const xmlChar* prefix,
                    const xmlChar* uri, int namespaceCount, const xmlChar** namespaces,
                    int attributeCount, int defaultedCount, const xmlChar** attributes) {
    auto* ctxt = static_cast<xmlParserCtxt*>(context);
    ParseState& state = StateOf(ctxt);
    std::pair<int, int> position = StartTagPosition(ctxt->input);
    xmlSAX2StartElementNs(context, localName, prefix, uri, namespaceCount, namespaces,
                          attributeCount, defaultedCount, attributes);
    if (ctxt->node) {
        state.positions.push_back({ctxt->node, position.first, position.second});
    }
    size_t attributeTotal =
        static_cast<size_t>(attributeCount) + static_cast<size_t>(namespaceCount);
    if (attributeTotal > state.limits->maxAttributesPerElement) {
        Fail(ctxt, "A start tag has more than " +
                       std::to_string(state.limits->maxAttributesPerElement) + " attributes");
    } else if (static_cast<size_t>(ctxt->nodeNr) > state.limits->maxDepth) {
        Fail(ctxt, "Elements are nested deeper than " + std::to_string(state.limits->maxDepth) +
                       " levels");
    }
}

void OnDoctype(void* context, const xmlChar*, const xmlChar*, const xmlChar*) {
    Fail(static_cast<xmlParserCtxt*>(context), "A DOCTYPE declaration is not allowed");
}

void OnError(void* context, xmlErrorPtr error) {
    if (!error || error->level < XML_ERR_ERROR) {
        return;
    }
    ParseState& state = StateOf(context);
    if (!state.failed) {
        state.failed = true;
        state.message = error->message ? error->message : "malformed XML";
        while (!state.message.empty() &&
               (state.message.back() == '\n' || state.message.back() == ' ')) {
            state.message.pop_back();
        }
        state.line = error->line;
        state.column = error->int2;
    }
}

[[noreturn]] void ThrowParseError(const std::string& problem, int line, int column) {
    BASALT_THROW(XMLParseException, "XML parse error at line " + std::to_string(line) +
                                        ", column " + std::to_string(column) + ": " + problem);
}

std::pair<int, int> PositionOfOffset(std::string_view text, size_t offset) {
    int line = 1;
    size_t lineStart = 0;
    for (size_t i = 0; i < offset && i < text.size(); ++i) {
        if (text[i] == '\n') {
            ++line;
            lineStart = i + 1;
        }
    }
    return {line, static_cast<int>(offset - lineStart + 1)};
}

// libxml2 checks attribute names for duplicates pair by pair; a start tag with a huge number of
// attributes would cost quadratic time before any hook runs, so count them first: a linear pass
// that skips comments, CDATA sections, processing instructions and quoted values. Returns the
// number of tags seen (to size the position table).
size_t CheckAttributeCounts(std::string_view text, size_t limit) {
    static const std::pair<std::string_view, std::string_view> kSkipped[] = {
        {"<!--", "-->"}, {"<![CDATA[", "]]>"}, {"<?", "?>"}};
    const char* const begin = text.data();
    const char* const end = begin + text.size();
    size_t tags = 0;
    const char* p = begin;
    while (p < end && (p = static_cast<const char*>(std::memchr(p, '<', end - p)))) {
        std::string_view rest(p, end - p);
        bool skipped = false;
        for (const auto& [open, close] : kSkipped) {
            if (rest.substr(0, open.size()) == open) {
                size_t closing = rest.find(close, open.size());
                p = closing == std::string_view::npos ? end : p + closing + close.size();
                skipped = true;
                break;
            }
        }
        if (skipped) {
            continue;
        }
        ++tags;
        const char* tag = p++;
        size_t count = 0;
        while (p < end && *p != '>') {
            if (*p == '"' || *p == '\'') {
                const char* closing = static_cast<const char*>(std::memchr(p + 1, *p, end - p - 1));
                p = closing ? closing + 1 : end;
                continue;
            }
            count += *p == '=' ? 1 : 0;
            ++p;
        }
        if (count > limit) {
            auto [line, column] = PositionOfOffset(text, static_cast<size_t>(tag - begin));
            ThrowParseError("A start tag has more than " + std::to_string(limit) + " attributes",
                            line, column);
        }
    }
    return tags;
}

// Below this size a start tag cannot hold enough attributes for libxml2's pairwise duplicate
// check to matter (at most a few milliseconds).
constexpr size_t kPrescanThreshold = 16 * 1024;

std::string ReadAll(Reader* input, size_t limit) {
    std::string text;
    char buffer[64 * 1024];
    for (;;) {
        size_t count = input->Read(buffer, sizeof buffer);
        if (count == 0) {
            return text;
        }
        if (text.size() + count > limit) {
            text.append(buffer, limit - text.size());
            auto [line, column] = PositionOfOffset(text, limit);
            ThrowParseError("The document is larger than " + std::to_string(limit) + " bytes", line,
                            column);
        }
        text.append(buffer, count);
    }
}

// text, refused as ReadAll refuses input beyond limit.
std::string_view InLimit(std::string_view text, size_t limit) {
    if (text.size() > limit) {
        auto [line, column] = PositionOfOffset(text.substr(0, limit), limit);
        ThrowParseError("The document is larger than " + std::to_string(limit) + " bytes", line,
                        column);
    }
    return text;
}

class DocumentHandlerImpl final : public ObjectImpl, public XMLHandler {
  public:
    Ref<Object> GetResult() const override { return Ref<Object>(m_result); }
    void SetResult(Ref<Document> document) { m_result = std::move(document); }

  private:
    Ref<Document> m_result;
};

class XMLParserImpl final : public ObjectImpl, public XMLParser {
  public:
    XMLParserImpl(DocumentHandlerImpl* handler, const ParserLimits& limits)
        : m_handler(handler), m_limits(limits) {}

    void Parse(Reader* input) override {
        if (!input) {
            BASALT_THROW(InvalidArgumentException, "No input to parse");
        }
        // Input already in memory is parsed in place; anything else is read in first.
        std::string copy;
        std::string_view text;
        if (auto* contiguous = dynamic_cast<ContiguousReader*>(input)) {
            text = InLimit(contiguous->TakeRemaining(), m_limits.maxDocumentBytes);
        } else {
            copy = ReadAll(input, m_limits.maxDocumentBytes);
            text = copy;
        }
        // The start-element hook enforces the attribute limit exactly; the pre-scan only matters
        // where libxml2's quadratic duplicate check could be made to cost real time.
        size_t tags = text.size() > kPrescanThreshold
                          ? CheckAttributeCounts(text, m_limits.maxAttributesPerElement)
                          : text.size() / 64;
        m_handler->SetResult(ParseText(text, tags));
    }

  private:
    Ref<Document> ParseText(std::string_view text, size_t tags) const {
        if (text.size() > static_cast<size_t>(INT32_MAX)) {
            ThrowParseError("The document is too large", 1, 1);
        }
        const LibxmlErrorCapture messages;
        UniquePtr<xmlParserCtxt> ctxt(
            xmlCreateMemoryParserCtxt(text.data(), static_cast<int>(text.size())));
        if (!ctxt) {
            ThrowParseError(text.empty() ? "The document is empty" : "Out of memory", 1, 1);
        }
        ParseState state;
        state.limits = &m_limits;
        state.positions.reserve(tags);  // start and end tags: room for every element
        ctxt->_private = &state;
        xmlSAXHandler* sax = ctxt->sax;
        sax->startElementNs = OnStartElement;
        sax->internalSubset = OnDoctype;
        sax->externalSubset = OnDoctype;
        sax->resolveEntity = nullptr;
        sax->serror = OnError;
        sax->initialized = XML_SAX2_MAGIC;
        xmlCtxtUseOptions(ctxt.get(), kParseOptions);

        xmlParseDocument(ctxt.get());
        UniquePtr<xmlDoc> doc(std::exchange(ctxt->myDoc, nullptr));  // the context never frees it
        if (state.failed || !ctxt->wellFormed || !doc) {
            ThrowParseError(state.failed ? state.message : "malformed XML", state.line,
                            state.column);
        }
        Ref<DocOwner> owner(new DocOwner(std::move(doc)));
        owner->SetPositions(std::move(state.positions));
        return WrapDocument(owner->GetDoc());
    }

    Ref<DocumentHandlerImpl> m_handler;
    ParserLimits m_limits;
};

}  // namespace

void CreateXMLDocumentHandler(Ref<XMLHandler>& handler) {
    handler = new DocumentHandlerImpl();
}

void CreateXMLParser(XMLHandler* handler, Ref<XMLParser>& parser) {
    CreateXMLParser(handler, ParserLimits(), parser);
}

void CreateXMLParser(XMLHandler* handler, const ParserLimits& limits, Ref<XMLParser>& parser) {
    InitXmlLibrary();
    auto* documentHandler = dynamic_cast<DocumentHandlerImpl*>(handler);
    if (!documentHandler) {
        BASALT_THROW(InvalidArgumentException,
                     "The parser needs a handler made by CreateXMLDocumentHandler");
    }
    parser = new XMLParserImpl(documentHandler, limits);
}

}  // namespace Xml
}  // namespace Basalt
