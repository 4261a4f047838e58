#include "internal/saml/AssertionParser.h"

#include <algorithm>
#include <initializer_list>
#include <string_view>
#include <utility>

#include <boost/lexical_cast/try_lexical_convert.hpp>

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
using Basalt::Xml::ElementNode;
using Basalt::Xml::Node;
using Basalt::Xml::NodeType;

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
constexpr std::string_view kXmlnsPrefix = "xmlns:";

const SkipWsAndCommentsFilter kFilter;

// Its namespace host is fixed at first use, not at load.
QName RenewRestrictionType() {
    return {CurrentExtensionNames().samlAdviceExtension, "RenewRestrictionType", ""};
}

// Element names in messages are local names, as the DOM reports them.
std::string NameOf(const ElementNode& element) {
    return element.GetLocalName();
}

[[noreturn]] void Fail(std::string message) {
    throw ParseException(std::move(message));
}

// Yields the children of an element that the filter keeps.
class ChildCursor {
  public:
    explicit ChildCursor(const ElementNode& parent) : m_node(Skip(parent.GetFirstChild())) {}
    const Ref<Node>& Current() const { return m_node; }
    bool AtEnd() const { return !m_node; }
    void Advance() {
        if (m_node) {
            m_node = Skip(m_node->GetNextSibling());
        }
    }

  private:
    static Ref<Node> Skip(Ref<Node> node) {
        while (node && !kFilter.Accept(node)) {
            node = node->GetNextSibling();
        }
        return node;
    }
    Ref<Node> m_node;
};

Ref<ElementNode> AsElement(const Ref<Node>& node) {
    if (!node || node->GetNodeType() != NodeType::Element) {
        return nullptr;
    }
    return Ref<ElementNode>(dynamic_cast<ElementNode*>(node.Get()));
}

Ref<ElementNode> ExpectElement(const Ref<Node>& node, std::string_view localName,
                               std::string_view ns) {
    Ref<ElementNode> element = AsElement(node);
    if (element && element->HasName(ns, localName)) {
        return element;
    }
    if (!element || element->GetLocalName() != localName) {
        Fail("Expected element '" + std::string(localName) + "' not found.");
    }
    Fail("Element '" + NameOf(*element) + "' has unexpected namespace");
}

bool IsElement(const Ref<Node>& node, std::string_view localName) {
    const Ref<ElementNode> element = AsElement(node);
    return element && element->HasName(Xmlns::kSamlAssertion, localName);
}

bool IsNamespaceDeclaration(const Basalt::Xml::Attribute& attribute) {
    const std::string_view name = attribute.qualifiedName;
    return name == "xmlns" || name.substr(0, kXmlnsPrefix.size()) == kXmlnsPrefix;
}

// The attributes of one element, checked against what it may carry.
class Attributes {
  public:
    // Plain names, compared as written.
    Attributes(const ElementNode& element, std::initializer_list<std::string_view> required,
               std::initializer_list<std::string_view> optional)
        : m_element(element) {
        element.GetAttributes(m_list);
        for (std::string_view name : required) {
            if (Find(name) == nullptr) {
                Fail("Node '" + NameOf(element) + " is missing required attribute '" +
                     std::string(name) + "'");
            }
        }
        for (const auto& attribute : m_list) {
            const std::string_view name = attribute.qualifiedName;
            const auto listed = [&](std::initializer_list<std::string_view> names) {
                return std::find(names.begin(), names.end(), name) != names.end();
            };
            if (!listed(required) && !listed(optional) && !IsNamespaceDeclaration(attribute)) {
                Fail("Unexpected attributes on element '" + NameOf(element) + "'");
            }
        }
    }

    // Namespace-qualified names, so that xsi:type matches whatever prefix is bound to its
    // namespace.
    Attributes(const ElementNode& element, std::initializer_list<QName> required,
               std::initializer_list<QName> optional, bool /*qualified*/)
        : m_element(element) {
        element.GetAttributes(m_list);
        for (const QName& name : required) {
            if (FindQualified(name) == nullptr) {
                Fail("Node '" + NameOf(element) + " is missing required attribute '" +
                     std::string(name.display) + "'");
            }
        }
        for (const auto& attribute : m_list) {
            const auto listed = [&](std::initializer_list<QName> names) {
                return std::any_of(names.begin(), names.end(),
                                   [&](const QName& q) { return Matches(attribute, q); });
            };
            if (!listed(required) && !listed(optional) && !IsNamespaceDeclaration(attribute)) {
                Fail("Unexpected attributes on element '" + NameOf(element) + "'");
            }
        }
    }

    // The value, or empty text when absent.
    std::string Text(std::string_view name) const {
        const auto* attribute = Find(name);
        return attribute ? attribute->value : std::string();
    }
    std::string Text(const QName& name) const {
        const auto* attribute = FindQualified(name);
        return attribute ? attribute->value : std::string();
    }

    Basalt::System::DateTime Date(std::string_view name) const {
        try {
            return Basalt::System::DateTime(Text(name));
        } catch (const Basalt::DateTimeFormatException&) {
            Fail(NameOf(m_element) + "/@" + std::string(name) + " is not a date");
        }
    }

    std::optional<int64_t> NonNegativeInteger(const QName& name) const {
        const auto* attribute = FindQualified(name);
        if (attribute == nullptr) {
            return std::nullopt;
        }
        int64_t value = 0;
        if (!boost::conversion::try_lexical_convert(attribute->value, value) || value < 0) {
            Fail(NameOf(m_element) + "/@" + std::string(name.display) +
                 " is not a non-negative integer.");
        }
        return value;
    }

  private:
    static bool Matches(const Basalt::Xml::Attribute& attribute, const QName& name) {
        return attribute.namespaceUri == name.ns && attribute.localName == name.local;
    }
    const Basalt::Xml::Attribute* Find(std::string_view name) const {
        for (const auto& attribute : m_list) {
            if (attribute.qualifiedName == name) {
                return &attribute;
            }
        }
        return nullptr;
    }
    const Basalt::Xml::Attribute* FindQualified(const QName& name) const {
        for (const auto& attribute : m_list) {
            if (Matches(attribute, name)) {
                return &attribute;
            }
        }
        return nullptr;
    }

    const ElementNode& m_element;
    std::vector<Basalt::Xml::Attribute> m_list;
};

void ExpectNoAttributes(const ElementNode& element) {
    Attributes(element, std::initializer_list<std::string_view>{}, {});
}

void ExpectEmpty(const ElementNode& element) {
    if (!ChildCursor(element).AtEnd()) {
        Fail("Element '" + NameOf(element) + "' must be empty");
    }
}

std::string ReadTextOnly(const ElementNode& element) {
    ChildCursor cursor(element);
    if (!cursor.AtEnd() && cursor.Current()->GetNodeType() == NodeType::Text) {
        std::string text = cursor.Current()->GetTextContent();
        cursor.Advance();
        if (cursor.AtEnd()) {
            return text;
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

NameId ReadNameId(const ElementNode& element) {
    const Attributes attributes(element, {}, {"Format"});
    return NameId{attributes.Text("Format"), ReadTextOnly(element)};
}

// The (namespace, local name) that the element's xsi:type names, or empty when it has none.
std::pair<std::string, std::string> ResolveXsiType(const ElementNode& element,
                                                   std::string& written) {
    if (!element.GetAttributeNS(kXsiType.ns, kXsiType.local, written)) {
        return {};
    }
    std::string defaultNs;
    element.LookupNamespaceUri("", defaultNs);
    return ResolveQName(element, written, defaultNs);
}

AttributeRecord ReadAttribute(const Ref<Node>& node) {
    const Ref<ElementNode> element = ExpectElement(node, "Attribute", Xmlns::kSamlAssertion);
    const Attributes attributes(*element, {"Name"}, {"NameFormat", "FriendlyName"});
    AttributeRecord record{attributes.Text("Name"),
                           attributes.Text("NameFormat"),
                           attributes.Text("FriendlyName"),
                           {}};
    for (ChildCursor cursor(*element); !cursor.AtEnd(); cursor.Advance()) {
        const Ref<ElementNode> value =
            ExpectElement(cursor.Current(), "AttributeValue", Xmlns::kSamlAssertion);
        record.values.push_back(ReadTextOnly(*value));
    }
    return record;
}

void ReadHolderOfKeyData(const ElementNode& data, SubjectRecord& subject) {
    const Attributes attributes(data, {kXsiType}, {kNotOnOrAfterAttr}, true);
    std::string written;
    const auto type = ResolveXsiType(data, written);
    if (type.first != kKeyInfoConfirmationType.ns ||
        type.second != kKeyInfoConfirmationType.local) {
        Fail("Invalid SubjectConfirmationData type: '" + written + "'");
    }
    ChildCursor dataChildren(data);
    const Ref<ElementNode> keyInfo =
        ExpectElement(dataChildren.Current(), "KeyInfo", Xmlns::kXmlDsig);
    ExpectNoAttributes(*keyInfo);
    ChildCursor keyInfoChildren(*keyInfo);
    const Ref<ElementNode> x509Data =
        ExpectElement(keyInfoChildren.Current(), "X509Data", Xmlns::kXmlDsig);
    ExpectNoAttributes(*x509Data);
    ChildCursor x509DataChildren(*x509Data);
    const Ref<ElementNode> certificate =
        ExpectElement(x509DataChildren.Current(), "X509Certificate", Xmlns::kXmlDsig);
    ExpectNoAttributes(*certificate);
    std::vector<unsigned char> der;
    Basalt::StringUtil::Base64Decode(ReadTextOnly(*certificate), der);
    Basalt::Crypto::CreateCertificate(der.data(), der.size(), subject.certificate);

    x509DataChildren.Advance();
    ExpectNoMoreChildren(x509DataChildren, "Unexpected elements after X509Certificate");
    keyInfoChildren.Advance();
    ExpectNoMoreChildren(keyInfoChildren, "Unexpected elements after X509Data");
    dataChildren.Advance();
    ExpectNoMoreChildren(dataChildren, "Unexpected elements after SubjectConfirmationData/KeyInfo");
}

void ReadSubjectConfirmation(const Ref<Node>& node, SubjectRecord& subject) {
    const Ref<ElementNode> confirmation =
        ExpectElement(node, "SubjectConfirmation", Xmlns::kSamlAssertion);
    const Attributes attributes(*confirmation, {"Method"}, {});
    const std::string method = attributes.Text("Method");
    if (method == kBearerMethod) {
        subject.confirmationType = Saml_Bearer;
    } else if (method == kHolderOfKeyMethod) {
        subject.confirmationType = Saml_HOK;
    } else {
        Fail("Unknown subject confirmation method: '" + method + "'");
    }

    ChildCursor cursor(*confirmation);
    if (IsElement(cursor.Current(), "NameID")) {
        subject.delegateId = ReadNameId(*AsElement(cursor.Current()));
        cursor.Advance();
    }
    const Ref<ElementNode> data =
        ExpectElement(cursor.Current(), "SubjectConfirmationData", Xmlns::kSamlAssertion);
    if (subject.confirmationType == Saml_HOK) {
        ReadHolderOfKeyData(*data, subject);
    } else {
        ExpectEmpty(*data);
        const Attributes dataAttributes(*data, {}, {"NotOnOrAfter"});
        subject.confirmationNotOnOrAfter = dataAttributes.Date("NotOnOrAfter");
    }
    cursor.Advance();
    ExpectNoMoreChildren(cursor, "Unexpected elements after SubjectConfirmationData");
}

void ReadSubject(const Ref<Node>& node, SubjectRecord& subject) {
    const Ref<ElementNode> element = ExpectElement(node, "Subject", Xmlns::kSamlAssertion);
    ExpectNoAttributes(*element);
    ChildCursor cursor(*element);
    subject.nameId = ReadNameId(*ExpectElement(cursor.Current(), "NameID", Xmlns::kSamlAssertion));
    cursor.Advance();
    ReadSubjectConfirmation(cursor.Current(), subject);
    cursor.Advance();
    ExpectNoMoreChildren(cursor, "Unexpected elements after SubjectConfirmation");
}

std::vector<DelegateRecord> ReadDelegationRestriction(const ElementNode& condition) {
    const Attributes attributes(condition, {kXsiType}, {}, true);
    std::vector<DelegateRecord> delegates;
    for (ChildCursor cursor(condition); !cursor.AtEnd(); cursor.Advance()) {
        const Ref<ElementNode> delegate =
            ExpectElement(cursor.Current(), "Delegate", Xmlns::kSamlDelegation);
        const Attributes delegateAttributes(*delegate, {}, {"DelegationInstant"});
        DelegateRecord record;
        record.delegationInstant = delegateAttributes.Date("DelegationInstant");
        ChildCursor delegateChildren(*delegate);
        record.nameId =
            ReadNameId(*ExpectElement(delegateChildren.Current(), "NameID", Xmlns::kSamlAssertion));
        delegateChildren.Advance();
        ExpectNoMoreChildren(delegateChildren, "Unexpected elements after Delegate/NameID");
        delegates.push_back(std::move(record));
    }
    return delegates;
}

std::set<std::string> ReadAudienceRestriction(const ElementNode& restriction) {
    std::set<std::string> audience;
    for (ChildCursor cursor(restriction); !cursor.AtEnd(); cursor.Advance()) {
        audience.insert(
            ReadTextOnly(*ExpectElement(cursor.Current(), "Audience", Xmlns::kSamlAssertion)));
    }
    return audience;
}

CountRestriction ReadProxyRestriction(const ElementNode& restriction) {
    ExpectEmpty(restriction);
    const Attributes attributes(restriction, {}, {kCountAttr}, true);
    return CountRestriction{attributes.NonNegativeInteger(kCountAttr)};
}

CountRestriction ReadRenewRestriction(const ElementNode& condition) {
    const Attributes attributes(condition, {kXsiType},
                                {kCountAttr, kPostdatableAttr, kRenewExpiredAttr}, true);
    return CountRestriction{attributes.NonNegativeInteger(kCountAttr)};
}

// Tries the restriction kinds not yet seen, in a fixed order; true if one consumed the node.
bool ReadRestriction(const Ref<Node>& node, ConditionsRecord& conditions) {
    const Ref<ElementNode> element = AsElement(node);
    if (!element || element->GetNamespaceUri() != Xmlns::kSamlAssertion) {
        return false;
    }
    const std::string localName = element->GetLocalName();
    // A Condition's xsi:type is resolved once, and only when a kind needs it.
    std::optional<std::pair<std::string, std::string>> type;
    const auto isCondition = [&](const QName& expected) {
        if (localName != "Condition") {
            return false;
        }
        if (!type) {
            std::string written;
            type = ResolveXsiType(*element, written);
        }
        return type->first == expected.ns && type->second == expected.local;
    };
    if (!conditions.delegationRestriction && isCondition(kDelegationRestrictionType)) {
        conditions.delegationRestriction = ReadDelegationRestriction(*element);
    } else if (!conditions.audienceRestriction && localName == "AudienceRestriction") {
        conditions.audienceRestriction = ReadAudienceRestriction(*element);
    } else if (!conditions.proxyRestriction && localName == "ProxyRestriction") {
        conditions.proxyRestriction = ReadProxyRestriction(*element);
    } else if (!conditions.renewRestriction && isCondition(RenewRestrictionType())) {
        conditions.renewRestriction = ReadRenewRestriction(*element);
    } else {
        return false;
    }
    return true;
}

void ReadConditions(const Ref<Node>& node, ConditionsRecord& conditions) {
    const Ref<ElementNode> element = ExpectElement(node, "Conditions", Xmlns::kSamlAssertion);
    const Attributes attributes(*element, {"NotBefore", "NotOnOrAfter"}, {});
    conditions.notBefore = attributes.Date("NotBefore");
    conditions.notOnOrAfter = attributes.Date("NotOnOrAfter");
    for (ChildCursor cursor(*element); !cursor.AtEnd(); cursor.Advance()) {
        if (!ReadRestriction(cursor.Current(), conditions)) {
            const Ref<ElementNode> unknown = AsElement(cursor.Current());
            Fail(std::string("Unknown or duplicate restriction node under Conditions") +
                 (unknown ? ": " + NameOf(*unknown) : std::string()));
        }
    }
}

std::vector<Advice> ReadAdvice(const ElementNode& element) {
    ExpectNoAttributes(element);
    std::vector<Advice> adviceList;
    for (ChildCursor cursor(element); !cursor.AtEnd(); cursor.Advance()) {
        const Ref<ElementNode> rsaAdvice = ExpectElement(
            cursor.Current(), "RSAAdvice", CurrentExtensionNames().samlAdviceExtension);
        const Attributes attributes(*rsaAdvice, {"AdviceSource"}, {});
        Advice advice{attributes.Text("AdviceSource"), {}};
        for (ChildCursor children(*rsaAdvice); !children.AtEnd(); children.Advance()) {
            AttributeRecord record = ReadAttribute(children.Current());
            advice.attributes.push_back(
                AdviceAttribute{std::move(record.name), std::move(record.values)});
        }
        adviceList.push_back(std::move(advice));
    }
    return adviceList;
}

void ReadAuthnStatement(const Ref<Node>& node, AuthnRecord& authn) {
    const Ref<ElementNode> element = ExpectElement(node, "AuthnStatement", Xmlns::kSamlAssertion);
    const Attributes attributes(*element, {"AuthnInstant"}, {});
    authn.authnInstant = attributes.Date("AuthnInstant");
    ChildCursor statementChildren(*element);
    const Ref<ElementNode> context =
        ExpectElement(statementChildren.Current(), "AuthnContext", Xmlns::kSamlAssertion);
    ExpectNoAttributes(*context);
    ChildCursor contextChildren(*context);
    authn.authnContextClassRef = ReadTextOnly(
        *ExpectElement(contextChildren.Current(), "AuthnContextClassRef", Xmlns::kSamlAssertion));
    contextChildren.Advance();
    ExpectNoMoreChildren(contextChildren, "Unexpected elements after AuthnContextClassRef");
    statementChildren.Advance();
    ExpectNoMoreChildren(statementChildren, "Unexpected elements after AuthnContext");
}

std::vector<AttributeRecord> ReadAttributeStatement(const Ref<Node>& node) {
    const Ref<ElementNode> element =
        ExpectElement(node, "AttributeStatement", Xmlns::kSamlAssertion);
    ExpectNoAttributes(*element);
    std::vector<AttributeRecord> records;
    for (ChildCursor cursor(*element); !cursor.AtEnd(); cursor.Advance()) {
        records.push_back(ReadAttribute(cursor.Current()));
    }
    return records;
}

void ReadSignature(const Ref<ElementNode>& assertion, const Ref<Node>& node,
                   Ref<Basalt::Xml::Security::Signature>& signature) {
    const Ref<ElementNode> element = AsElement(node);
    if (!element) {
        Fail("Expected element ds:Signature not found");
    }
    try {
        Basalt::Xml::Security::CreateSignatureFromDom(assertion.Get(), element.Get(), signature);
    } catch (const Basalt::Xml::Security::SignatureSyntaxException& e) {
        Fail(std::string("Signature syntax error: ") + e.what());
    }
    CheckSignatureCoverage(*assertion, *signature);
}

}  // namespace

void WalkAssertion(const Ref<ElementNode>& assertion, ParsedAssertion& parsed) {
    const Ref<ElementNode> element =
        ExpectElement(Ref<Node>(assertion), "Assertion", Xmlns::kSamlAssertion);
    const Attributes attributes(*element, {"Version", "ID", "IssueInstant"}, {});
    parsed.version = attributes.Text("Version");
    parsed.id = attributes.Text("ID");
    parsed.issueInstant = attributes.Date("IssueInstant");

    ChildCursor cursor(*element);
    parsed.issuer = ReadNameId(*ExpectElement(cursor.Current(), "Issuer", Xmlns::kSamlAssertion));
    cursor.Advance();
    ReadSignature(element, cursor.Current(), parsed.signature);
    cursor.Advance();
    ReadSubject(cursor.Current(), parsed.subject);
    cursor.Advance();
    ReadConditions(cursor.Current(), parsed.conditions);
    cursor.Advance();
    if (IsElement(cursor.Current(), "Advice")) {
        parsed.advice = ReadAdvice(*AsElement(cursor.Current()));
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
    ChildCursor cursor(*assertion);
    cursor.Advance();  // past the Issuer
    ReadSignature(assertion, cursor.Current(), signature);
}

}  // namespace Saml
}  // namespace SsoClient
