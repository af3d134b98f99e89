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

TEST(Vocabulary, PacketActions) {
    EXPECT_EQ("Log", PacketActionText(0));
    EXPECT_EQ("Allow", PacketActionText(1));
    EXPECT_EQ("Deny", PacketActionText(2));
    EXPECT_EQ("Force Allow", PacketActionText(3));
    EXPECT_EQ("Bypass", PacketActionText(4));
    EXPECT_EQ("5", PacketActionText(5));
    EXPECT_EQ("4294967295", PacketActionText(0xFFFFFFFFu));
}

TEST(Vocabulary, PacketReasonsInsideAndOutsideTheTable) {
    EXPECT_EQ("Out Of Connection", PacketReasonText(100));
    EXPECT_EQ("Fragmented", PacketReasonText(108));
    EXPECT_EQ("Invalid Frament Offsets", PacketReasonText(109));
    EXPECT_EQ("Dropped Retransmit", PacketReasonText(139));
    EXPECT_EQ("Out Of Allowed Policy (Open Port)", PacketReasonText(141));
    EXPECT_EQ("Max UDP Connections", PacketReasonText(152));
    // Just outside the table, and the gaps inside it.
    EXPECT_EQ("0x63", PacketReasonText(99));
    EXPECT_EQ("0x99", PacketReasonText(153));
    EXPECT_EQ("0x75", PacketReasonText(117));
    EXPECT_EQ("0x81", PacketReasonText(129));
    EXPECT_EQ("0x8c", PacketReasonText(140));
    EXPECT_EQ("0", PacketReasonText(0));
}

TEST(Vocabulary, PayloadActionsAndTheDetectOnlyMark) {
    EXPECT_EQ("Block", PayloadActionText(1));
    EXPECT_EQ("Log", PayloadActionText(6));
    EXPECT_EQ("7", PayloadActionText(7));
    EXPECT_EQ("0", PayloadActionText(0));
    EXPECT_EQ("Detect Only: Block", PayloadActionText(0x81));
    EXPECT_EQ("Detect Only: Replace", PayloadActionText(0x85));
    EXPECT_EQ("Detect Only: 0", PayloadActionText(0x80));
    EXPECT_EQ("Detect Only: 9", PayloadActionText(0x89));
    // Higher bits stay in the number.
    EXPECT_EQ("256", PayloadActionText(0x100));
    EXPECT_EQ("Detect Only: -129", PayloadActionText(-1));
}

TEST(Vocabulary, PayloadReasonsByGroup) {
    EXPECT_EQ("Infinite Data Loop Error", PayloadReasonText(-806));
    EXPECT_EQ("Double Decoding Exploit", PayloadReasonText(-508));
    EXPECT_EQ("Invalid Use of Character", PayloadReasonText(-507));
    EXPECT_EQ("URI Path Depth Exceeded", PayloadReasonText(-500));
    EXPECT_EQ("Unsupported Cipher", PayloadReasonText(-300));
    EXPECT_EQ("Packet Read Error", PayloadReasonText(-207));
    EXPECT_EQ("Runtime Error", PayloadReasonText(-206));
    EXPECT_EQ("Region Too Big", PayloadReasonText(-200));
    EXPECT_EQ("Debug Trace", PayloadReasonText(-101));
    EXPECT_EQ("Payload filter action", PayloadReasonText(-1));
    EXPECT_EQ("Connection Close Notification", PayloadReasonText(10000));
    EXPECT_EQ("Connection Close Notification", PayloadReasonText(10001));
    EXPECT_EQ("Error: -2", PayloadReasonText(-2));
    EXPECT_EQ("Error: 0", PayloadReasonText(0));
    EXPECT_EQ("Error: -807", PayloadReasonText(-807));
    EXPECT_EQ("Error: -5000", PayloadReasonText(-5000));
    EXPECT_EQ("Error: 9999", PayloadReasonText(9999));
    EXPECT_EQ("Error: 10002", PayloadReasonText(10002));
}

// Installs a catalogue compiled from po text for the language "de" for the
// length of a test, and removes all translations again afterwards.
class TranslatedVocabulary : public testing::Test {
protected:
    void LoadCatalogue(const std::string& po) {
        const std::string folder = m_Folder.Path() + "/de/LC_MESSAGES";
        ASSERT_EQ(0, std::system(("mkdir -p '" + folder + "'").c_str()));
        std::ofstream(folder + "/vexil_words.po") << po;
        const std::string compile =
            "msgfmt -o '" + folder + "/vexil_words.mo' '" + folder + "/vexil_words.po'";
        ASSERT_EQ(0, std::system(compile.c_str()));

        wxFileTranslationsLoader::AddCatalogLookupPathPrefix(m_Folder.Path());
        wxTranslations* translations = new wxTranslations;
        wxTranslations::Set(translations);
        translations->SetLanguage("de");
        ASSERT_TRUE(translations->AddCatalog("vexil_words"));
    }

    void TearDown() override { wxTranslations::Set(nullptr); }

    TempFolder m_Folder;
};

const char kGermanCatalogue[] =
    "msgid \"\"\n"
    "msgstr \"Content-Type: text/plain; charset=UTF-8\\n\"\n"
    "\n"
    "msgid \"Deny\"\nmsgstr \"Verweigern\"\n"
    "msgid \"Force Allow\"\nmsgstr \"Erzwungen erlaubt\"\n"
    "msgid \"Invalid Frament Offsets\"\nmsgstr \"Ungültige Fragmentversätze\"\n"
    "msgid \"Reset\"\nmsgstr \"Zurücksetzen\"\n"
    "msgid \"Detect Only: \"\nmsgstr \"Nur erkennen: \"\n"
    "msgid \"Error: \"\nmsgstr \"Fehler: \"\n"
    "msgid \"Runtime Error\"\nmsgstr \"Laufzeitfehler\"\n";

TEST_F(TranslatedVocabulary, CatalogueTextsReplaceTheWordsEverywhere) {
    LoadCatalogue(kGermanCatalogue);
    EXPECT_EQ("Verweigern", PacketActionText(2));
    EXPECT_EQ("Erzwungen erlaubt", PacketActionText(3));
    EXPECT_EQ(wxString::FromUTF8("Ungültige Fragmentversätze"), PacketReasonText(109));
    EXPECT_EQ(wxString::FromUTF8("Zurücksetzen"), PayloadActionText(2));
    EXPECT_EQ(wxString::FromUTF8("Nur erkennen: Zurücksetzen"), PayloadActionText(0x82));
    EXPECT_EQ("Nur erkennen: 0", PayloadActionText(0x80));
    EXPECT_EQ("Laufzeitfehler", PayloadReasonText(-206));
    EXPECT_EQ("Fehler: -2", PayloadReasonText(-2));
    // Words the catalogue lacks, and numbers, stay as they are.
    EXPECT_EQ("Allow", PacketActionText(1));
    EXPECT_EQ("Block", PayloadActionText(1));
    EXPECT_EQ("0x63", PacketReasonText(99));
}

TEST_F(TranslatedVocabulary, KeysKeepTheirTrailingBlank) {
    // Without the blank the catalogue entry is a different key.
    LoadCatalogue(
        "msgid \"\"\nmsgstr \"Content-Type: text/plain; charset=UTF-8\\n\"\n\n"
        "msgid \"Error:\"\nmsgstr \"Fehler:\"\n"
        "msgid \"Detect Only:\"\nmsgstr \"Nur erkennen:\"\n");
    EXPECT_EQ("Error: -2", PayloadReasonText(-2));
    EXPECT_EQ("Detect Only: Block", PayloadActionText(0x81));
}

}  // namespace
