#include "ps_common/config/config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "test_support/temporary_directory.h"

namespace ps_ns {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

namespace pt = boost::property_tree;

constexpr const char* kText = R"(<?xml version="1.0"?>
<!-- <ignored> -->
<PSConfig site="Chicago">
  <Logging lbmNotifications="Yes" empty="" blank=" 1" two="2"/>
  <General OnloadStackName=" stack ">
    <PSConfig/>
    <Limit>12</Limit>
    <Limit>13</Limit>
  </General>
</PSConfig>
)";

std::string ErrorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "no error";
}

std::string ParseError(const std::string& xml, const std::string& root = {}) {
  return ErrorOf([&] { Config::Parse(xml, "client.xml", root); });
}

std::string Nested(std::size_t depth) {
  std::string xml;
  for (std::size_t i = 0; i < depth; ++i) {
    xml += "<a>";
  }
  for (std::size_t i = 0; i < depth; ++i) {
    xml += "</a>";
  }
  return xml;
}

TEST(ConfigTest, LookupsTakeNamesBelowTheRootAndFullPaths) {
  const auto config = Config::Parse(kText);
  EXPECT_EQ(config->GetRoot(), "PSConfig");
  EXPECT_EQ(config->GetCompositeNode("General")->GetAttrValue<std::string>("OnloadStackName", ""), " stack ");
  EXPECT_EQ(config->GetCompositeNode("PSConfig.General")->GetNodeName(), "PSConfig.General");
  EXPECT_EQ(config->GetCompositeNode("PSConfig")->GetAttrValue<std::string>("site", ""), "Chicago");
  EXPECT_EQ(config->GetValue("General.Limit"), "12");
  EXPECT_EQ(config->GetValue("Logging.<xmlattr>.two"), "2");
  EXPECT_THAT(config->GetChildNames(), ElementsAre("Logging", "General"));
  EXPECT_THAT(config->GetChildNames("General"), ElementsAre("PSConfig", "Limit", "Limit"));
  EXPECT_THAT(config->GetChildNames("Logging"), IsEmpty());
  EXPECT_THROW(config->GetCompositeNode("Missing"), pt::ptree_bad_path);
  EXPECT_THROW(config->GetChildNames("Missing"), pt::ptree_bad_path);
}

TEST(ConfigTest, OnlyTheFirstEightCharactersDecideWhetherAPathIsFull) {
  EXPECT_EQ(ConfigHelper::GetQualifiedName("PSConfig", "PSConfigOther"), "PSConfigOther");
  EXPECT_EQ(ConfigHelper::GetQualifiedName("Config", "Config"), "Config");
  EXPECT_EQ(ConfigHelper::GetQualifiedName("Config", "Config.Logging"), "Config.Config.Logging");
  EXPECT_EQ(ConfigHelper::GetQualifiedName("LongConfig", "LongConfig"), "LongConfig.LongConfig");
  EXPECT_EQ(ConfigHelper::GetQualifiedName("PSConfig", "PSConf"), "PSConfig.PSConf");
}

TEST(ConfigTest, FoundTellsWhetherTheValueIsInTheFile) {
  const auto config = Config::Parse(kText);
  const auto node = config->GetCompositeNode("Logging");
  bool found = false;
  EXPECT_EQ(node->GetAttrValue<std::string>("empty", "default", &found), "");
  EXPECT_TRUE(found);
  EXPECT_TRUE(node->GetAttrValue<bool>("missing", true, &found));
  EXPECT_FALSE(found);
  EXPECT_TRUE(node->GetAttrValue<bool>("lbmNotifications", false, &found));
  EXPECT_TRUE(found);
  EXPECT_EQ(config->GetValue("Missing", "default", &found), "default");
  EXPECT_FALSE(found);
  EXPECT_FALSE(node->GetAttrValue<bool>("missing", false));
}

TEST(ConfigTest, BooleansAreWordsInAnyCaseAndNothingElse) {
  const auto read = [](const std::string& text) {
    pt::ptree tree;
    tree.put("<xmlattr>.flag", text);
    return CompositeNode("node", tree).GetAttrValue<bool>("flag", false);
  };
  for (const char* text : {"1", "true", "TRUE", "Yes", "t"}) {
    EXPECT_TRUE(read(text)) << text;
  }
  for (const char* text : {"0", "False", "no", "NO", "f"}) {
    EXPECT_FALSE(read(text)) << text;
  }
  EXPECT_EQ(ErrorOf([&] { read("2"); }), "Invalid Value 2 for Attribute flag");
  EXPECT_EQ(ErrorOf([&] { read(" yes"); }), "Invalid Value  YES for Attribute flag");
  EXPECT_EQ(ErrorOf([&] { read("true "); }), "Invalid Value TRUE  for Attribute flag");
  EXPECT_EQ(ErrorOf([&] { read(""); }), "Invalid Value  for Attribute flag");
  EXPECT_EQ(ErrorOf([&] { read("y"); }), "Invalid Value Y for Attribute flag");
}

TEST(ConfigTest, AMisspeltAttributeIsFoundWithItsLine) {
  const auto config = Config::Parse(R"(<PSConfig site="Chicago">
  <Deep><Deeper flag="1"/>
    <Logging lbmNotifications="yes"/></Deep>
  <Logging
    other="" lbmNotifications_="yes" lbmNotification="yes"/>
  <Logging levle="3"/>
  <General OnloadStack="x" ONLOADSTACKNAME="y" Present="1" present="2"/>
</PSConfig>)");
  const auto find = [](const Config& where, const std::string& node, const std::string& attribute) {
    const auto found = where.FindMisspelling(node, attribute);
    return found ? found->name + ':' + std::to_string(found->line) : "none";
  };
  EXPECT_EQ(find(*config, "Logging", "lbmNotifications"), "lbmNotifications_:4") << "the first of equals";
  EXPECT_EQ(find(*config, "Logging", "lbmNotificatoin"), "lbmNotification:4");
  EXPECT_EQ(find(*config, "Logging", "lbmNotifying"), "none");
  EXPECT_EQ(find(*config, "Logging", "level"), "none") << "lookups know the first node of a name only";
  EXPECT_EQ(find(*config, "Deep.Deeper", "lag"), "flag:2");
  EXPECT_EQ(find(*config, "Deep.Logging", "Notifications"), "none");
  EXPECT_EQ(find(*config, "PSConfig", "siet"), "site:1");
  EXPECT_EQ(find(*config, "General", "OnloadStackName"), "ONLOADSTACKNAME:7");
  EXPECT_EQ(find(*config, "General", "Present"), "none") << "it is there";
  EXPECT_EQ(find(*config, "Deep", "flag"), "none") << "a node without attributes";
  EXPECT_EQ(find(*config, "Missing", "flag"), "none");

  pt::ptree tree;
  tree.put("A.<xmlattr>.flag", "1");
  EXPECT_EQ(find(Config("made.xml", "A", tree), "A", "flags"), "flag:0");
  Config copy("made.xml", "A", tree);
  copy = *config;
  EXPECT_EQ(find(copy, "Deep.Deeper", "lag"), "flag:2");
}

TEST(ConfigTest, CopiesAreIndependentOfTheOriginal) {
  auto original = Config::Parse(kText, "one.xml");
  const Config copy = *original;
  const auto node = original->GetCompositeNode("General");
  const std::string& path = original->GetPath();
  *original = *Config::Parse("<Other><X/></Other>", "a much longer path than the one before it.xml");
  EXPECT_EQ(path, "a much longer path than the one before it.xml");
  EXPECT_EQ(original->GetRoot(), "Other");
  EXPECT_THAT(original->GetChildNames(), ElementsAre("X"));
  EXPECT_EQ(copy.GetPath(), "one.xml");
  EXPECT_EQ(copy.GetValue("General.Limit"), "12");
  EXPECT_EQ(node->GetPTree().get<std::string>("Limit"), "12");
  const Config& self = *original;
  *original = self;
  EXPECT_EQ(original->GetRoot(), "Other");
}

TEST(ConfigTest, FaultsInTheTextNameFileAndLine) {
  const struct {
    const char* xml;
    const char* where;
    const char* what;
  } faults[] = {
      {"", "client.xml:1: ", "is empty"},
      {"<!-- nothing -->\n", "client.xml:2: ", "is empty"},
      {"setting=1\n", "client.xml:1: ", "at \"=1\""},
      {"<A>\n</A>\n<B/>", "client.xml:3: ", "\"<B/>\" after the end of the root"},
      {"<A/>\ntail", "client.xml:2: ", "\"tail\" after the end of the root"},
      {"<A>\n<B>\n</A>", "client.xml:3: ", "end tag of <A> where <B> of line 2 is open"},
      {"<A>\n<B>\n</B>", "client.xml:1: ", "<A> is never closed"},
      {"</A>", "client.xml:1: ", "without a start tag"},
      {"<A>\n<B x=1/></A>", "client.xml:2: ", "name=\"value\""},
      {"<A\n x='1' x='2'/>", "client.xml:2: ", "attribute x twice"},
      {"<A>\n<B x=\"1/></A>", "client.xml:2: ", "at \"</A>\""},
      {"<A x='1'y='2'/>", "client.xml:1: ", "at \"y='2'/>\""},
      {"<A>\n<!-- </A>\n", "client.xml:2: ", "\"<!-- </A>\" is never closed"},
      {"<A>\n<![CDATA[ </A>\n", "client.xml:2: ", "CDATA section is never closed"},
      {"<?xml version='1.0'", "client.xml:1: ", "is never closed"},
      {"\n<?xml version='1.0'?><A/>", "client.xml:2: ", "not the first thing"},
      {"<A", "client.xml:1: ", "\"<A\" is never closed"},
      {"<A>\n< B/></A>", "client.xml:2: ", "&lt;"},
      {"<A>\n\xFF</A>", "client.xml:2: ", "Save it as UTF-8"},
      {"<?xml version='1.0' encoding='UTF-16'?><A/>", "client.xml:1: ", "Save it as UTF-8"},
      {"<?xml version='1.0' encoding='none'?><A/>", "client.xml:1: ", "Save it as UTF-8"},
      {"<A>\n&e;</A>", "client.xml:2: ", "\"&e;</A>\": there is no such entity"},
  };
  for (const auto& fault : faults) {
    EXPECT_THAT(ParseError(fault.xml), AllOf(StartsWith(fault.where), HasSubstr(fault.what))) << fault.xml;
  }
  EXPECT_THAT(ParseError(std::string("<A>\n\0</A>", 9)), AllOf(StartsWith("client.xml:2: "), HasSubstr("zero byte")));
  EXPECT_THAT(ParseError("\n<A/>", "PSConfig"), AllOf(StartsWith("client.xml:2: "), HasSubstr("must be <PSConfig>")));
}

TEST(ConfigTest, NoEntityIsEverDeclared) {
  for (const char* type : {"<!DOCTYPE A>", "<!DOCTYPE A SYSTEM 'a.dtd'>", "<!DOCTYPE A [<!ENTITY e 'x'>]>"}) {
    EXPECT_THAT(ParseError(std::string(type) + "\n<A>&e;</A>"),
                AllOf(StartsWith("client.xml:1: "), HasSubstr("DOCTYPE")));
  }
}

TEST(ConfigTest, MarkupInsideValuesIsNotStructure) {
  const auto config = Config::Parse(
      "\xEF\xBB\xBF<A x='&lt;/A>' y = \"it's > that\"><?pi <B> ?><!-- </A> --><C><![CDATA[<D></A>]]></C>&lt;</A\n>\n");
  const auto root = config->GetCompositeNode("A");
  EXPECT_EQ(root->GetAttrValue<std::string>("x", ""), "</A>");
  EXPECT_EQ(root->GetAttrValue<std::string>("y", ""), "it's > that");
  EXPECT_EQ(config->GetValue("C"), "<D></A>");
  EXPECT_THAT(config->GetChildNames(), ElementsAre("C"));
}

TEST(ConfigTest, TextLosesBlanksThatOnlyLayItOut) {
  const struct {
    const char* xml;
    const char* text;
  } cases[] = {
      {"\n  one\n\ttwo  ", "one two"},
      {" a &amp;\r\n b&lt;", "a & b<"},
      {"&#32; a&#10;", "  a\n"},
      {" <![CDATA[  ]]> ", "  "},
      {"one <!-- --> two <B> no </B> three <?pi?> ", "onetwothree"},
  };
  for (const auto& [xml, text] : cases) {
    EXPECT_EQ(Config::Parse("<A>" + std::string(xml) + "</A>")->GetValue("A"), text) << xml;
  }
}

TEST(ConfigTest, TextIsUtf8WhateverTheFileIsIn) {
  const auto config = Config::Parse("<?xml version='1.0' encoding='ISO-8859-1'?><A x='\xE9'>\xE9&#8364;</A>");
  EXPECT_EQ(config->GetValue("A"), "\u00E9\u20AC");
  EXPECT_EQ(config->GetValue("<xmlattr>.x"), "\u00E9");
}

TEST(ConfigTest, NestingHasALimitThatIsAnErrorAndNotACrash) {
  EXPECT_EQ(Config::Parse(Nested(Config::kMaxNesting))->GetRoot(), "a");
  EXPECT_THAT(ParseError(Nested(Config::kMaxNesting + 1)), HasSubstr("more than 64 deep"));
  EXPECT_THAT(ParseError(Nested(100'000)), HasSubstr("more than 64 deep"));
}

TEST(ConfigTest, LoadReadsTheFile) {
  const test_support::TemporaryDirectory directory;
  const std::string path = directory.Path() / "client.xml";
  std::ofstream(path) << kText;
  const auto config = Config::Load(path, "PSConfig");
  EXPECT_EQ(config->GetPath(), path);
  EXPECT_EQ(config->GetValue("General.Limit"), "12");
}

TEST(ConfigTest, FilesThatCannotBeReadSayWhy) {
  const test_support::TemporaryDirectory directory;
  const std::string missing = directory.Path() / "missing.xml";
  EXPECT_THAT(ErrorOf([&] { Config::Load(missing); }), AllOf(StartsWith(missing), HasSubstr("No such file")));
  EXPECT_THAT(ErrorOf([&] { Config::Load(directory.Path()); }), HasSubstr("is a directory"));

  const std::string large = directory.Path() / "large.xml";
  std::ofstream(large) << "<A>" << std::string(Config::kMaxFileSize - 7, ' ') << "</A>";
  EXPECT_EQ(Config::Load(large)->GetRoot(), "A");
  std::ofstream(large, std::ios::app) << '\n';
  EXPECT_THAT(ErrorOf([&] { Config::Load(large); }), AllOf(StartsWith(large), HasSubstr("larger than")));
}

}  // namespace
}  // namespace ps_ns
