// Namespaces: the prefixes and URIs of the system's documents.
#include <veskan/XmlSchema.h>

namespace Veskan {

// The web address of the product's owner, under which the product namespaces live. Everything
// below derives from this one constant.
#define VESKAN_NAMESPACE_BASE u"http://www.calvorco.com"

const char16_t* const Namespaces::Prefix::Xml = u"xml";
const char16_t* const Namespaces::Prefix::XLink = u"xlink";
const char16_t* const Namespaces::Prefix::RDF = u"rdf";
const char16_t* const Namespaces::Prefix::DC = u"dc";
const char16_t* const Namespaces::Prefix::vCard = u"vCard";
const char16_t* const Namespaces::Prefix::Sparql = u"sparql";
const char16_t* const Namespaces::Prefix::Veskan = u"veskan";
const char16_t* const Namespaces::Prefix::Vantrel = u"vantrel";
const char16_t* const Namespaces::Prefix::XPathFunctions = u"fn";
const char16_t* const Namespaces::Prefix::XmlSchema = u"xs";

const char16_t* const Namespaces::Uri::Xml = u"http://www.w3.org/XML/1998/namespace";
const char16_t* const Namespaces::Uri::XLink = u"http://www.w3.org/1999/xlink";
const char16_t* const Namespaces::Uri::RDF = u"http://www.w3.org/1999/02/22-rdf-syntax-ns#";
const char16_t* const Namespaces::Uri::DC = u"http://purl.org/dc/elements/1.1/";
const char16_t* const Namespaces::Uri::vCard = u"http://www.w3.org/2001/vcard-rdf/3.0#";
const char16_t* const Namespaces::Uri::Sparql = u"http://www.w3.org/2005/sparql-results#";
const char16_t* const Namespaces::Uri::Veskan = VESKAN_NAMESPACE_BASE u"/2008/veskan/";
const char16_t* const Namespaces::Uri::Vantrel = VESKAN_NAMESPACE_BASE u"/2008/vantrel/";
const char16_t* const Namespaces::Uri::XPathFunctions = u"http://www.w3.org/2005/xpath-functions";
const char16_t* const Namespaces::Uri::XmlSchema = u"http://www.w3.org/2001/XMLSchema";

#undef VESKAN_NAMESPACE_BASE

const XPathVariables Namespaces::Defaults(Prefix::Xml, Uri::Xml, Prefix::XLink, Uri::XLink,
                                          Prefix::RDF, Uri::RDF, Prefix::DC, Uri::DC, Prefix::vCard,
                                          Uri::vCard, Prefix::Sparql, Uri::Sparql, Prefix::Veskan,
                                          Uri::Veskan, Prefix::Vantrel, Uri::Vantrel,
                                          Prefix::XPathFunctions, Uri::XPathFunctions,
                                          Prefix::XmlSchema, Uri::XmlSchema, nullptr);

}  // namespace Veskan
