// An XML document parsed with libxml2, for tests that check generated XML with a real parser:
// well-formedness, validation against an XSD file and XPath queries. Header-only, so that only
// the test binaries that include it link libxml2.
#pragma once

#include <libxml/parser.h>
#include <libxml/xmlschemas.h>
#include <libxml/xpath.h>

#include <memory>
#include <string>
#include <vector>

namespace saffra::testing {

class XmlDocument {
 public:
  /// Parses `text` without touching the network; ok() tells whether it was well-formed.
  explicit XmlDocument(const std::string& text) {
    doc_.reset(xmlReadMemory(text.data(), static_cast<int>(text.size()), "report.xml", nullptr,
                             XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
    if (!doc_) {
      const xmlError* error = xmlGetLastError();
      parseError_ = error && error->message ? error->message : "unknown parse error";
    }
  }

  bool ok() const { return doc_ != nullptr; }
  const std::string& parseError() const { return parseError_; }

  /// The schema's complaints about the document; empty when it is valid.
  std::vector<std::string> validate(const std::string& xsdPath) const {
    std::vector<std::string> problems;
    if (!doc_) return {"not well-formed: " + parseError_};
    std::unique_ptr<xmlSchemaParserCtxt, decltype(&xmlSchemaFreeParserCtxt)> parser(
        xmlSchemaNewParserCtxt(xsdPath.c_str()), xmlSchemaFreeParserCtxt);
    std::unique_ptr<xmlSchema, decltype(&xmlSchemaFree)> schema(
        parser ? xmlSchemaParse(parser.get()) : nullptr, xmlSchemaFree);
    if (!schema) return {"cannot read the schema " + xsdPath};
    std::unique_ptr<xmlSchemaValidCtxt, decltype(&xmlSchemaFreeValidCtxt)> validator(
        xmlSchemaNewValidCtxt(schema.get()), xmlSchemaFreeValidCtxt);
    xmlSchemaSetValidStructuredErrors(validator.get(), collect, &problems);
    if (xmlSchemaValidateDoc(validator.get(), doc_.get()) != 0 && problems.empty()) {
      problems.push_back("invalid");
    }
    return problems;
  }

  /// The text of every node `xpath` selects (an attribute's value, an element's content).
  std::vector<std::string> values(const std::string& xpath) const {
    std::vector<std::string> out;
    if (!doc_) return out;
    std::unique_ptr<xmlXPathContext, decltype(&xmlXPathFreeContext)> context(
        xmlXPathNewContext(doc_.get()), xmlXPathFreeContext);
    std::unique_ptr<xmlXPathObject, decltype(&xmlXPathFreeObject)> result(
        xmlXPathEvalExpression(reinterpret_cast<const xmlChar*>(xpath.c_str()), context.get()),
        xmlXPathFreeObject);
    if (!result || !result->nodesetval) return out;
    for (int i = 0; i < result->nodesetval->nodeNr; ++i) {
      xmlChar* content = xmlNodeGetContent(result->nodesetval->nodeTab[i]);
      out.emplace_back(content ? reinterpret_cast<const char*>(content) : "");
      xmlFree(content);
    }
    return out;
  }

  /// The single value `xpath` selects, or "<n matches>" when it selects none or several.
  std::string value(const std::string& xpath) const {
    auto all = values(xpath);
    return all.size() == 1 ? all[0] : "<" + std::to_string(all.size()) + " matches>";
  }

 private:
  static void collect(void* problems, xmlErrorPtr error) {
    if (error && error->message)
      static_cast<std::vector<std::string>*>(problems)->push_back(error->message);
  }

  std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)> doc_{nullptr, xmlFreeDoc};
  std::string parseError_;
};

}  // namespace saffra::testing
