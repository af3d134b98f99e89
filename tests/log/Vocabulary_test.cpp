// The words of action and reason codes, with and without a translation
// catalogue.
#include <cstdlib>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <wx/translation.h>

#include "log/Vocabulary.h"
#include "tests/TempFolder.h"

using VEXIL::PacketActionText;
using VEXIL::PacketReasonText;
using VEXIL::PayloadActionText;
using VEXIL::PayloadReasonText;

namespace {

// The texts of the codes, joined by bars.
template <typename Text>
std::string Words(Text text, std::initializer_list<long long> codes) {
    std::string words;
    for (long long code : codes) {
        words += (words.empty() ? "" : "|") + text(code);
    }
    return words;
}

TEST(Vocabulary, TablesTheirGapsAndTheNumbersOutside) {
    // The ends of each table, its gaps, and the numbers on either side.
    EXPECT_EQ("Log|Bypass|5|4294967295", Words(PacketActionText, {0, 4, 5, 0xFFFFFFFF}));
    EXPECT_EQ("Out Of Connection|Max UDP Connections|0x63|0x99|0x75|0x81|0x8c|0",
              Words(PacketReasonText, {100, 152, 99, 153, 117, 129, 140, 0}));
    // Bit 7 is the detect-only mark; higher bits stay in the number.
    EXPECT_EQ(
        "Block|Log|7|0|Detect Only: Block|Detect Only: 0|Detect Only: 9|256|"
        "Detect Only: -129",
        Words(PayloadActionText, {1, 6, 7, 0, 0x81, 0x80, 0x89, 0x100, -1}));
    EXPECT_EQ(
        "Infinite Data Loop Error|Payload filter action|Connection Close Notification|"
        "Connection Close Notification|Error: -2|Error: 0|Error: -807|Error: 9999|Error: 10002",
        Words(PayloadReasonText, {-806, -1, 10000, 10001, -2, 0, -807, 9999, 10002}));
}

// A catalogue compiled from po text for the language "de" replaces the words;
// words it lacks, and numbers, stay as they are.
TEST(Vocabulary, CatalogueTextsReplaceTheWordsEverywhere) {
    TempFolder temp;
    const std::string folder = temp.Path() + "/de/LC_MESSAGES";
    const std::string catalogue = folder + "/vexil_words";
    ASSERT_TRUE(wxFileName::Mkdir(folder, 0700, wxPATH_MKDIR_FULL));
    std::ofstream(catalogue + ".po")
        << "msgid \"\"\nmsgstr \"Content-Type: text/plain; charset=UTF-8\\n\"\n\n"
           "msgid \"Deny\"\nmsgstr \"Verweigern\"\n"
           "msgid \"Invalid Frament Offsets\"\nmsgstr \"Ungültige Fragmentversätze\"\n"
           "msgid \"Reset\"\nmsgstr \"Zurücksetzen\"\n"
           "msgid \"Detect Only: \"\nmsgstr \"Nur erkennen: \"\n"
           "msgid \"Error: \"\nmsgstr \"Fehler: \"\n"
           "msgid \"Runtime Error\"\nmsgstr \"Laufzeitfehler\"\n";
    ASSERT_EQ(0, std::system(("msgfmt -o '" + catalogue + ".mo' '" + catalogue + ".po'").c_str()));
    wxFileTranslationsLoader::AddCatalogLookupPathPrefix(temp.Path());
    wxTranslations::Set(new wxTranslations);
    struct Uninstall {
        ~Uninstall() { wxTranslations::Set(nullptr); }
    } uninstall;
    wxTranslations::Get()->SetLanguage("de");
    ASSERT_TRUE(wxTranslations::Get()->AddCatalog("vexil_words"));
    EXPECT_EQ("Verweigern|Allow", Words(PacketActionText, {2, 1}));
    EXPECT_EQ("Ungültige Fragmentversätze|0x63", Words(PacketReasonText, {109, 99}));
    EXPECT_EQ("Zurücksetzen|Nur erkennen: Zurücksetzen|Nur erkennen: 0|Block",
              Words(PayloadActionText, {2, 0x82, 0x80, 1}));
    EXPECT_EQ("Laufzeitfehler|Fehler: -2", Words(PayloadReasonText, {-206, -2}));
}

}  // namespace
