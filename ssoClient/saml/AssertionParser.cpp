#include "internal/saml/AssertionParser.h"

#include <algorithm>
#include <charconv>
#include <initializer_list>
#include <string_view>
#include <utility>

#include <boost/container/small_vector.hpp>

#include <basalt/Crypto.h>
#include <basalt/Exception.h>
#include <basalt/StringUtil.h>

#include <ssoClient/Exceptions.h>
#include "internal/saml/ExtensionNames.h"
#include "internal/saml/SamlNames.h"
#include "internal/saml/Validation.h"
#include "internal/xml/XmlUtils.h"

namespace SsoClient {
namespace Saml {
namespace {

using Basalt::Ref;
using Basalt::Xml::AttributeView;
using Basalt::Xml::ElementNode;
using Basalt::Xml::NodeType;
using Basalt::Xml::NodeView;

// The walk reads the tree through views: no wrapper, reference or copy per node it passes; only
// the values it keeps are copied.

// A namespace-qualified name, with the form it is shown in messages.
struct QName {
    std::string_view ns;
    std::string_view local;
    std::string_view display;
};

const QName kXsiType{Xmlns::kXsi, "type", "xsi:type"};
const QName kNotOnOrAfterAttr{"", "NotOnOrAfter", "NotOnOrAfter"};
const QName kCountAttr{"", "Count", "Count"};
const QName kPostdatableAttr{"", "Postdatable", "Postdatable"};
const QName kRenewExpiredAttr{"", "RenewExpired", "RenewExpired"};
const QName kKeyInfoConfirmationType{Xmlns::kSamlAssertion, "KeyInfoConfirmationDataType", ""};
const QName kDelegationRestrictionType{Xmlns::kSamlDelegation, "DelegationRestrictionType", ""};
constexpr std::string_view kXmlnsPrefix = "xmlns";

const SkipWsAndCommentsFilter kFilter;

// Its namespace host is fixed at first use, not at load.
QName RenewRestrictionType() {
    return {CurrentExtensionNames().samlAdviceExtension, "RenewRestrictionType", ""};
}

// Element names in messages are local names, as the DOM reports them.
std::string NameOf(const NodeView& element) {
    return std::string(element.GetLocalName());
}

[[noreturn]] void Fail(std::string message) {
    throw ParseException(std::move(message));
}

// Yields the children of an element that the filter keeps.
class ChildCursor {
  public:
    explicit ChildCursor(const NodeView& parent) : m_node(Skip(parent.GetFirstChild())) {}
    const NodeView& Current() const { return m_node; }
    bool AtEnd() const { return !m_node; }
    void Advance() {
        if (m_node) {
            m_node = Skip(m_node.GetNextSibling());
        }
    }

  private:
    static NodeView Skip(NodeView node) {
        while (node && !kFilter.Accept(node)) {
            node = node.GetNextSibling();
        }
        return node;
    }
    NodeView m_node;
};

// How many children the cursor yields: lets a list be sized once.
size_t CountChildren(const NodeView& parent) {
    size_t count = 0;
    for (ChildCursor cursor(parent); !cursor.AtEnd(); cursor.Advance()) {
        ++count;
    }
    return count;
}

bool IsElementNode(const NodeView& node) {
    return node && node.GetNodeType() == NodeType::Element;
}

NodeView ExpectElement(const NodeView& node, std::string_view localName, std::string_view ns) {
    if (!IsElementNode(node) || node.GetLocalName() != localName) {
        Fail("Expected element '" + std::string(localName) + "' not found.");
    }
    if (node.GetNamespaceUri() != ns) {
        Fail("Element '" + NameOf(node) + "' has unexpected namespace");
    }
    return node;
}

bool IsElement(const NodeView& node, std::string_view localName) {
    return IsElementNode(node) && node.GetLocalName() == localName &&
           node.GetNamespaceUri() == Xmlns::kSamlAssertion;
}

// The names of one attribute, read once for all the comparisons an element's check makes.
struct AttributeNames {
    explicit AttributeNames(const AttributeView& attribute)
        : view(attribute),
          prefix(attribute.GetPrefix()),
          local(attribute.GetLocalName()),
          ns(attribute.GetNamespaceUri()) {}

    // The name as written ("p:local" or "local") equals name.
    bool HasQualifiedName(std::string_view name) const {
        if (prefix.empty()) {
            return local == name;
        }
        return name.size() == prefix.size() + 1 + local.size() &&
               name.substr(0, prefix.size()) == prefix && name[prefix.size()] == ':' &&
               name.substr(prefix.size() + 1) == local;
    }
    bool Matches(const QName& name) const { return local == name.local && ns == name.ns; }
    std::string QualifiedName() const {
        return prefix.empty() ? std::string(local) : std::string(prefix).append(":").append(local);
    }
    bool IsNamespaceDeclaration() const {
        return prefix == kXmlnsPrefix || (prefix.empty() && local == kXmlnsPrefix);
    }

    AttributeView view;
    std::string_view prefix;
    std::string_view local;
    std::string_view ns;
};

bool Matches(const AttributeView& attribute, const QName& name) {
    return attribute.GetLocalName() == name.local && attribute.GetNamespaceUri() == name.ns;
}

// The attributes of one element, checked against what it may carry.
class Attributes {
  public:
    // Plain names, compared as written.
    Attributes(const NodeView& element, std::initializer_list<std::string_view> required,
               std::initializer_list<std::string_view> optional)
        : m_element(element) {
        Check(
            required, optional,
            [](const AttributeNames& attribute, std::string_view name) {
                return attribute.HasQualifiedName(name);
            },
            [](std::string_view name) { return name; }, false);
    }

    // Namespace-qualified names, so that xsi:type matches whatever prefix is bound to its
    // namespace.
    Attributes(const NodeView& element, std::initializer_list<QName> required,
               std::initializer_list<QName> optional, bool /*qualified*/)
        : m_element(element) {
        Check(
            required, optional,
            [](const AttributeNames& attribute, const QName& name) {
                return attribute.Matches(name);
            },
            [](const QName& name) { return name.display; }, true);
    }

    // The value, or empty text when absent.
    std::string Text(std::string_view name) const {
        std::string storage;
        return std::string(View(name, storage));
    }
    // The same for a value only looked at: a view into the tree, or into storage.
    std::string_view View(std::string_view name, std::string& storage) const {
        const AttributeNames* attribute =
            Find([&](const AttributeNames& candidate) { return candidate.HasQualifiedName(name); });
        return attribute ? attribute->view.GetValue(storage) : std::string_view();
    }

    Basalt::System::DateTime Date(std::string_view name) const {
        try {
            std::string storage;
            return Basalt::System::DateTime(View(name, storage));
        } catch (const Basalt::DateTimeFormatException&) {
            Fail(NameOf(m_element) + "/@" + std::string(name) + " is not a date");
        }
    }

    std::optional<int64_t> NonNegativeInteger(const QName& name) const {
        const AttributeNames* attribute =
            Find([&](const AttributeNames& candidate) { return candidate.Matches(name); });
        if (attribute == nullptr) {
            return std::nullopt;
        }
        std::string storage;
        std::string_view text = attribute->view.GetValue(storage);
        if (!text.empty() && text[0] == '+') {
            text.remove_prefix(1);  // the schema type allows a sign; "-0" passes as zero
        }
        // No stream: a stream's locale is shared state that threads would fight over.
        int64_t value = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (error != std::errc() || end != text.data() + text.size() || value < 0) {
            Fail(NameOf(m_element) + "/@" + std::string(name.display) +
                 " is not a non-negative integer.");
        }
        return value;
    }

  private:
    // Every required name present, then nothing but required, optional and namespace
    // declarations; display gives a name as messages show it. A qualified check names the
    // extra attribute as written.
    template <class Name, class Matches, class Display>
    void Check(std::initializer_list<Name> required, std::initializer_list<Name> optional,
               Matches matches, Display display, bool qualified) {
        for (AttributeView attribute = m_element.GetFirstAttribute(); attribute;
             attribute = attribute.GetNext()) {
            m_names.emplace_back(attribute);
        }
        for (const Name& name : required) {
            if (!Find([&](const AttributeNames& candidate) { return matches(candidate, name); })) {
                Fail("Node '" + NameOf(m_element) + " is missing required attribute '" +
                     std::string(display(name)) + "'");
            }
        }
        const auto listed = [&](const AttributeNames& attribute,
                                std::initializer_list<Name> names) {
            return std::any_of(names.begin(), names.end(),
                               [&](const Name& name) { return matches(attribute, name); });
        };
        for (const AttributeNames& attribute : m_names) {
            if (!listed(attribute, required) && !listed(attribute, optional) &&
                !attribute.IsNamespaceDeclaration()) {
                Fail(qualified ? "Unexpected attribute '" + attribute.QualifiedName() +
                                     "' on element '" + NameOf(m_element) + "'"
                               : "Unexpected attributes on element '" + NameOf(m_element) + "'");
            }
        }
    }

    template <class Predicate>
    const AttributeNames* Find(Predicate predicate) const {
        const auto found = std::find_if(m_names.begin(), m_names.end(), predicate);
        return found == m_names.end() ? nullptr : &*found;
    }

    NodeView m_element;
    // No element of an assertion may carry more than four attributes: more go to the heap.
    boost::container::small_vector<AttributeNames, 4> m_names;
};

void ExpectNoAttributes(const NodeView& element) {
    Attributes(element, std::initializer_list<std::string_view>{}, {});
}

void ExpectEmpty(const NodeView& element) {
    if (!ChildCursor(element).AtEnd()) {
        Fail("Element '" + NameOf(element) + "' must be empty");
    }
}

std::string ReadTextOnly(const NodeView& element) {
    ChildCursor cursor(element);
    if (!cursor.AtEnd() && cursor.Current().GetNodeType() == NodeType::Text) {
        const std::string_view text = cursor.Current().GetText();
        cursor.Advance();
        if (cursor.AtEnd()) {
            return std::string(text);
        }
    }
    Fail("Element '" + NameOf(element) +
         "' must only have textual content (but has extra children or is empty).");
}

void ExpectNoMoreChildren(const ChildCursor& cursor, const char* message) {
    if (!cursor.AtEnd()) {
        Fail(message);
    }
}

NameId ReadNameId(const NodeView& element) {
    const Attributes attributes(element, {}, {"Format"});
    return NameId{attributes.Text("Format"), ReadTextOnly(element)};
}

// The (namespace, local name) that the element's xsi:type names, or empty when it has none;
// written receives the value as written (a view into the tree or into storage), which the
// result may point into.
std::pair<std::string_view, std::string_view> ResolveXsiType(const NodeView& element,
                                                             std::string_view& written,
                                                             std::string& storage) {
    AttributeView attribute = element.GetFirstAttribute();
    while (attribute && !Matches(attribute, kXsiType)) {
        attribute = attribute.GetNext();
    }
    if (!attribute) {
        return {};
    }
    written = attribute.GetValue(storage);
    const size_t colon = written.find(':');
    std::string_view uri;
    if (colon == std::string_view::npos) {
        element.LookupNamespaceUri("", uri);
        return {uri, written};
    }
    if (!element.LookupNamespaceUri(written.substr(0, colon), uri)) {
        // throws, naming where the prefix is
        ResolveQName(*element.GetElement(), std::string(written), "");
    }
    return {uri, written.substr(colon + 1)};
}

AttributeRecord ReadAttribute(const NodeView& node) {
    const NodeView element = ExpectElement(node, "Attribute", Xmlns::kSamlAssertion);
    const Attributes attributes(element, {"Name"}, {"NameFormat", "FriendlyName"});
    AttributeRecord record{attributes.Text("Name"),
                           attributes.Text("NameFormat"),
                           attributes.Text("FriendlyName"),
                           {}};
    record.values.reserve(CountChildren(element));
    for (ChildCursor cursor(element); !cursor.AtEnd(); cursor.Advance()) {
        const NodeView value =
            ExpectElement(cursor.Current(), "AttributeValue", Xmlns::kSamlAssertion);
        record.values.push_back(ReadTextOnly(value));
    }
    return record;
}

void ReadHolderOfKeyData(const NodeView& data, SubjectRecord& subject) {
    const Attributes attributes(data, {kXsiType}, {kNotOnOrAfterAttr}, true);
    std::string_view written;
    std::string storage;
    const auto type = ResolveXsiType(data, written, storage);
    if (type.first != kKeyInfoConfirmationType.ns ||
        type.second != kKeyInfoConfirmationType.local) {
        Fail("Invalid SubjectConfirmationData type: '" + std::string(written) + "'");
    }
    ChildCursor dataChildren(data);
    const NodeView keyInfo = ExpectElement(dataChildren.Current(), "KeyInfo", Xmlns::kXmlDsig);
    ExpectNoAttributes(keyInfo);
    ChildCursor keyInfoChildren(keyInfo);
    const NodeView x509Data = ExpectElement(keyInfoChildren.Current(), "X509Data", Xmlns::kXmlDsig);
    ExpectNoAttributes(x509Data);
    ChildCursor x509DataChildren(x509Data);
    const NodeView certificate =
        ExpectElement(x509DataChildren.Current(), "X509Certificate", Xmlns::kXmlDsig);
    ExpectNoAttributes(certificate);
    std::vector<unsigned char> der;
    Basalt::StringUtil::Base64Decode(ReadTextOnly(certificate), der);
    Basalt::Crypto::CreateCertificate(der.data(), der.size(), subject.certificate);

    x509DataChildren.Advance();
    ExpectNoMoreChildren(x509DataChildren, "Unexpected elements after X509Certificate");
    keyInfoChildren.Advance();
    ExpectNoMoreChildren(keyInfoChildren, "Unexpected elements after X509Data");
    dataChildren.Advance();
    ExpectNoMoreChildren(dataChildren, "Unexpected elements after SubjectConfirmationData/KeyInfo");
}

void ReadSubjectConfirmation(const NodeView& node, SubjectRecord& subject) {
    const NodeView confirmation = ExpectElement(node, "SubjectConfirmation", Xmlns::kSamlAssertion);
    const Attributes attributes(confirmation, {"Method"}, {});
    std::string storage;
    const std::string_view method = attributes.View("Method", storage);
    if (method == kBearerMethod) {
        subject.confirmationType = Saml_Bearer;
    } else if (method == kHolderOfKeyMethod) {
        subject.confirmationType = Saml_HOK;
    } else {
        Fail("Unknown subject confirmation method: '" + std::string(method) + "'");
    }

    ChildCursor cursor(confirmation);
    if (IsElement(cursor.Current(), "NameID")) {
        subject.delegateId = ReadNameId(cursor.Current());
        cursor.Advance();
    }
    const NodeView data =
        ExpectElement(cursor.Current(), "SubjectConfirmationData", Xmlns::kSamlAssertion);
    if (subject.confirmationType == Saml_HOK) {
        ReadHolderOfKeyData(data, subject);
    } else {
        ExpectEmpty(data);
        const Attributes dataAttributes(data, {}, {"NotOnOrAfter"});
        subject.confirmationNotOnOrAfter = dataAttributes.Date("NotOnOrAfter");
    }
    cursor.Advance();
    ExpectNoMoreChildren(cursor, "Unexpected elements after SubjectConfirmationData");
}

void ReadSubject(const NodeView& node, SubjectRecord& subject) {
    const NodeView element = ExpectElement(node, "Subject", Xmlns::kSamlAssertion);
    ExpectNoAttributes(element);
    ChildCursor cursor(element);
    subject.nameId = ReadNameId(ExpectElement(cursor.Current(), "NameID", Xmlns::kSamlAssertion));
    cursor.Advance();
    ReadSubjectConfirmation(cursor.Current(), subject);
    cursor.Advance();
    ExpectNoMoreChildren(cursor, "Unexpected elements after SubjectConfirmation");
}

std::vector<DelegateRecord> ReadDelegationRestriction(const NodeView& condition) {
    const Attributes attributes(condition, {kXsiType}, {}, true);
    std::vector<DelegateRecord> delegates;
    for (ChildCursor cursor(condition); !cursor.AtEnd(); cursor.Advance()) {
        const NodeView delegate =
            ExpectElement(cursor.Current(), "Delegate", Xmlns::kSamlDelegation);
        const Attributes delegateAttributes(delegate, {}, {"DelegationInstant"});
        DelegateRecord record;
        record.delegationInstant = delegateAttributes.Date("DelegationInstant");
        ChildCursor delegateChildren(delegate);
        record.nameId =
            ReadNameId(ExpectElement(delegateChildren.Current(), "NameID", Xmlns::kSamlAssertion));
        delegateChildren.Advance();
        ExpectNoMoreChildren(delegateChildren, "Unexpected elements after Delegate/NameID");
        delegates.push_back(std::move(record));
    }
    return delegates;
}

std::set<std::string> ReadAudienceRestriction(const NodeView& restriction) {
    std::set<std::string> audience;
    for (ChildCursor cursor(restriction); !cursor.AtEnd(); cursor.Advance()) {
        audience.insert(
            ReadTextOnly(ExpectElement(cursor.Current(), "Audience", Xmlns::kSamlAssertion)));
    }
    return audience;
}

CountRestriction ReadProxyRestriction(const NodeView& restriction) {
    ExpectEmpty(restriction);
    const Attributes attributes(restriction, {}, {"Count"});
    return CountRestriction{attributes.NonNegativeInteger(kCountAttr)};
}

CountRestriction ReadRenewRestriction(const NodeView& condition) {
    const Attributes attributes(condition, {kXsiType},
                                {kCountAttr, kPostdatableAttr, kRenewExpiredAttr}, true);
    return CountRestriction{attributes.NonNegativeInteger(kCountAttr)};
}

// Tries the restriction kinds not yet seen, in a fixed order; true if one consumed the node.
bool ReadRestriction(const NodeView& element, ConditionsRecord& conditions) {
    if (!IsElementNode(element) || element.GetNamespaceUri() != Xmlns::kSamlAssertion) {
        return false;
    }
    const std::string_view localName = element.GetLocalName();
    // A Condition's xsi:type is resolved once, and only when a kind needs it.
    std::string_view written;
    std::string storage;
    std::optional<std::pair<std::string_view, std::string_view>> type;
    const auto isCondition = [&](const QName& expected) {
        if (localName != "Condition") {
            return false;
        }
        if (!type) {
            type = ResolveXsiType(element, written, storage);
        }
        return type->first == expected.ns && type->second == expected.local;
    };
    if (!conditions.delegationRestriction && isCondition(kDelegationRestrictionType)) {
        conditions.delegationRestriction = ReadDelegationRestriction(element);
    } else if (!conditions.audienceRestriction && localName == "AudienceRestriction") {
        conditions.audienceRestriction = ReadAudienceRestriction(element);
    } else if (!conditions.proxyRestriction && localName == "ProxyRestriction") {
        conditions.proxyRestriction = ReadProxyRestriction(element);
    } else if (!conditions.renewRestriction && isCondition(RenewRestrictionType())) {
        conditions.renewRestriction = ReadRenewRestriction(element);
    } else {
        return false;
    }
    return true;
}

void ReadConditions(const NodeView& node, ConditionsRecord& conditions) {
    const NodeView element = ExpectElement(node, "Conditions", Xmlns::kSamlAssertion);
    const Attributes attributes(element, {"NotBefore", "NotOnOrAfter"}, {});
    conditions.notBefore = attributes.Date("NotBefore");
    conditions.notOnOrAfter = attributes.Date("NotOnOrAfter");
    for (ChildCursor cursor(element); !cursor.AtEnd(); cursor.Advance()) {
        if (!ReadRestriction(cursor.Current(), conditions)) {
            const NodeView& unknown = cursor.Current();
            Fail(std::string("Unknown or duplicate restriction node under Conditions") +
                 (IsElementNode(unknown) ? ": " + NameOf(unknown) : std::string()));
        }
    }
}

std::vector<Advice> ReadAdvice(const NodeView& element) {
    ExpectNoAttributes(element);
    std::vector<Advice> adviceList;
    for (ChildCursor cursor(element); !cursor.AtEnd(); cursor.Advance()) {
        const NodeView rsaAdvice = ExpectElement(cursor.Current(), "RSAAdvice",
                                                 CurrentExtensionNames().samlAdviceExtension);
        const Attributes attributes(rsaAdvice, {"AdviceSource"}, {});
        Advice advice{attributes.Text("AdviceSource"), {}};
        for (ChildCursor children(rsaAdvice); !children.AtEnd(); children.Advance()) {
            AttributeRecord record = ReadAttribute(children.Current());
            advice.attributes.push_back(
                AdviceAttribute{std::move(record.name), std::move(record.values)});
        }
        adviceList.push_back(std::move(advice));
    }
    return adviceList;
}

void ReadAuthnStatement(const NodeView& node, AuthnRecord& authn) {
    const NodeView element = ExpectElement(node, "AuthnStatement", Xmlns::kSamlAssertion);
    const Attributes attributes(element, {"AuthnInstant"}, {});
    authn.authnInstant = attributes.Date("AuthnInstant");
    ChildCursor statementChildren(element);
    const NodeView context =
        ExpectElement(statementChildren.Current(), "AuthnContext", Xmlns::kSamlAssertion);
    ExpectNoAttributes(context);
    ChildCursor contextChildren(context);
    authn.authnContextClassRef = ReadTextOnly(
        ExpectElement(contextChildren.Current(), "AuthnContextClassRef", Xmlns::kSamlAssertion));
    contextChildren.Advance();
    ExpectNoMoreChildren(contextChildren, "Unexpected elements after AuthnContextClassRef");
    statementChildren.Advance();
    ExpectNoMoreChildren(statementChildren, "Unexpected elements after AuthnContext");
}

std::vector<AttributeRecord> ReadAttributeStatement(const NodeView& node) {
    const NodeView element = ExpectElement(node, "AttributeStatement", Xmlns::kSamlAssertion);
    ExpectNoAttributes(element);
    std::vector<AttributeRecord> records;
    records.reserve(CountChildren(element));
    for (ChildCursor cursor(element); !cursor.AtEnd(); cursor.Advance()) {
        records.push_back(ReadAttribute(cursor.Current()));
    }
    return records;
}

void ReadSignature(const Ref<ElementNode>& assertion, const std::string& id, const NodeView& node,
                   Ref<Basalt::Xml::Security::Signature>& signature) {
    if (!IsElementNode(node)) {
        Fail("Expected element ds:Signature not found");
    }
    try {
        Basalt::Xml::Security::CreateSignatureFromDom(assertion.Get(), node.GetElement().Get(),
                                                      signature);
    } catch (const Basalt::Xml::Security::SignatureSyntaxException& e) {
        Fail(std::string("Signature syntax error: ") + e.what());
    }
    CheckSignatureCoverage(id, *signature);
}

}  // namespace

void WalkAssertion(const Ref<ElementNode>& assertion, ParsedAssertion& parsed) {
    const NodeView element =
        ExpectElement(NodeView(assertion.Get()), "Assertion", Xmlns::kSamlAssertion);
    const Attributes attributes(element, {"Version", "ID", "IssueInstant"}, {});
    parsed.version = attributes.Text("Version");
    parsed.id = attributes.Text("ID");
    parsed.issueInstant = attributes.Date("IssueInstant");

    ChildCursor cursor(element);
    parsed.issuer = ReadNameId(ExpectElement(cursor.Current(), "Issuer", Xmlns::kSamlAssertion));
    cursor.Advance();
    ReadSignature(assertion, parsed.id, cursor.Current(), parsed.signature);
    cursor.Advance();
    ReadSubject(cursor.Current(), parsed.subject);
    cursor.Advance();
    ReadConditions(cursor.Current(), parsed.conditions);
    cursor.Advance();
    if (IsElement(cursor.Current(), "Advice")) {
        parsed.advice = ReadAdvice(cursor.Current());
        cursor.Advance();
    }
    ReadAuthnStatement(cursor.Current(), parsed.authnStatement);
    cursor.Advance();
    if (!cursor.AtEnd()) {
        parsed.attributes = ReadAttributeStatement(cursor.Current());
        cursor.Advance();
    }
    ExpectNoMoreChildren(cursor, "Unexpected elements under Assertion");
}

void ReadAssertionSignature(const Ref<ElementNode>& assertion,
                            Ref<Basalt::Xml::Security::Signature>& signature) {
    const NodeView element(assertion.Get());
    ChildCursor cursor(element);
    cursor.Advance();  // past the Issuer
    std::string id;
    assertion->GetAttribute("ID", id);
    ReadSignature(assertion, id, cursor.Current(), signature);
}

}  // namespace Saml
}  // namespace SsoClient
