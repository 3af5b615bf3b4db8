// SPDX-License-Identifier: Apache-2.0
#include "tarn/formats.h"

#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "unit/slate/comma_locale.h"

namespace {
using tarn::Format;
using tarn_internal::to_format;
using Formats = std::vector<Format>;

// ---- the tables -----------------------------------------------------------------------------------------

struct MimeRow {
    Format format;
    std::string type;

    friend std::ostream& operator<<(std::ostream& stream, const MimeRow& row) { return stream << row.type; }
};

class MimeType : public testing::TestWithParam<MimeRow> {};

TEST_P(MimeType, NamesItsFormat)
{
    EXPECT_EQ(to_format(GetParam().type), GetParam().format);
}

TEST_P(MimeType, NamesItsFormatWithParametersBehind)
{
    EXPECT_EQ(to_format(GetParam().type + "; charset=utf-8"), GetParam().format);
}

TEST_P(MimeType, NamesNothingWithTextAround)
{
    EXPECT_EQ(to_format(GetParam().type + "x"), Format::Unknown);
    EXPECT_EQ(to_format("x" + GetParam().type), Format::Unknown);
}

INSTANTIATE_TEST_SUITE_P(
    Application, MimeType,
    testing::Values(MimeRow{Format::AnyApplication, "application/*"},
                    MimeRow{Format::Json, "application/json"},
                    MimeRow{Format::Bin, "application/octet-stream"}, MimeRow{Format::Xml, "application/xml"},
                    MimeRow{Format::Proto, "application/x-protobuf"}, MimeRow{Format::Zip, "application/zip"},
                    MimeRow{Format::Gzip, "application/gzip"},
                    MimeRow{Format::TTable, "application/vnd.corvane.translationtable.rev3"},
                    MimeRow{Format::Tar, "application/x-tar"}, MimeRow{Format::Sh, "application/x-sh"},
                    MimeRow{Format::Hex, "application/vnd.intel.hex"},
                    MimeRow{Format::PanelScript, "application/vnd.corvane.panelscript"},
                    MimeRow{Format::PanelMarkup, "application/vnd.corvane.panelmarkup"},
                    MimeRow{Format::StageScript, "application/vnd.corvane.stagescript"},
                    MimeRow{Format::MarbleFont, "application/vnd.corvane.marble-font"},
                    MimeRow{Format::Reel, "application/vnd.corvane.reel"},
                    MimeRow{Format::Reelist, "application/vnd.corvane.reelist+xml"},
                    MimeRow{Format::Pdf, "application/pdf"}, MimeRow{Format::Batch, "application/x-bat"},
                    MimeRow{Format::Proto, "application/protobuf"},
                    MimeRow{Format::JavaScript, "application/javascript"},
                    MimeRow{Format::Proto, "application/vnd.google.protobuf"},
                    MimeRow{Format::Sable, "application/sable_sign_config"}));

INSTANTIATE_TEST_SUITE_P(
    Image, MimeType,
    testing::Values(MimeRow{Format::AnyImage, "image/*"}, MimeRow{Format::Png, "image/png"},
                    MimeRow{Format::Jpeg, "image/jpeg"}, MimeRow{Format::Gif, "image/gif"},
                    MimeRow{Format::Bmp, "image/bmp"}, MimeRow{Format::Svg, "image/svg+xml"},
                    MimeRow{Format::Tiff, "image/tiff"}, MimeRow{Format::Icon, "image/vnd.microsoft.icon"}));

INSTANTIATE_TEST_SUITE_P(
    Text, MimeType,
    testing::Values(MimeRow{Format::AnyText, "text/*"}, MimeRow{Format::Text, "text/plain"},
                    MimeRow{Format::Html, "text/html"}, MimeRow{Format::Css, "text/css"},
                    MimeRow{Format::Csv, "text/csv"}, MimeRow{Format::JavaScript, "text/javascript"},
                    MimeRow{Format::UriList, "text/uri-list"}, MimeRow{Format::Xsl, "text/xsl"}));

INSTANTIATE_TEST_SUITE_P(Wildcards, MimeType,
                         testing::Values(MimeRow{Format::Any, "*/*"}, MimeRow{Format::AnyAudio, "audio/*"},
                                         MimeRow{Format::AnyVideo, "video/*"},
                                         MimeRow{Format::AnyFont, "font/*"}));

struct ExtensionRow {
    std::string extension;
    Format format;

    friend std::ostream& operator<<(std::ostream& stream, const ExtensionRow& row)
    {
        return stream << row.extension;
    }
};

class Extension : public testing::TestWithParam<ExtensionRow> {};

TEST_P(Extension, NamesItsFormatAsABareWord)
{
    EXPECT_EQ(to_format(GetParam().extension), GetParam().format);
}

TEST_P(Extension, NamesItsFormatBehindAPath)
{
    EXPECT_EQ(tarn_internal::to_format_from_path("/some.where/file." + GetParam().extension),
              GetParam().format);
}

INSTANTIATE_TEST_SUITE_P(
    Table, Extension,
    testing::Values(
        ExtensionRow{"binpb", Format::Proto}, ExtensionRow{"pb.bin", Format::Proto},
        ExtensionRow{"proto", Format::Proto}, ExtensionRow{"json", Format::Json},
        ExtensionRow{"xml", Format::Xml}, ExtensionRow{"png", Format::Png}, ExtensionRow{"jpg", Format::Jpeg},
        ExtensionRow{"jpeg", Format::Jpeg}, ExtensionRow{"jpe", Format::Jpeg},
        ExtensionRow{"bmp", Format::Bmp}, ExtensionRow{"svg", Format::Svg}, ExtensionRow{"svgz", Format::Svg},
        ExtensionRow{"css", Format::Css}, ExtensionRow{"csv", Format::Csv},
        ExtensionRow{"html", Format::Html}, ExtensionRow{"htm", Format::Html},
        ExtensionRow{"txt", Format::Text}, ExtensionRow{"text", Format::Text},
        ExtensionRow{"log", Format::Text}, ExtensionRow{"gif", Format::Gif}, ExtensionRow{"zip", Format::Zip},
        ExtensionRow{"tar", Format::Tar}, ExtensionRow{"sh", Format::Sh}, ExtensionRow{"bat", Format::Batch},
        ExtensionRow{"panelscript", Format::PanelScript}, ExtensionRow{"panelmarkup", Format::PanelMarkup},
        ExtensionRow{"script", Format::StageScript}, ExtensionRow{"reel", Format::Reel},
        ExtensionRow{"reelist", Format::Reelist}, ExtensionRow{"gz", Format::Gzip},
        ExtensionRow{"kcb", Format::Gzip}, ExtensionRow{"tiff", Format::Tiff},
        ExtensionRow{"tif", Format::Tiff},
        // Two formats share it, and the first one wins.
        ExtensionRow{"hex", Format::Hex}, ExtensionRow{"pdf", Format::Pdf}, ExtensionRow{"ico", Format::Icon},
        ExtensionRow{"js", Format::JavaScript}, ExtensionRow{"uris", Format::UriList},
        ExtensionRow{"uri", Format::UriList}, ExtensionRow{"url", Format::UriList},
        ExtensionRow{"bin", Format::Bin}, ExtensionRow{"xsl", Format::Xsl}));

struct FormatRow {
    Format format;
    std::string mime_type;
    std::string extension;
    bool is_binary;

    friend std::ostream& operator<<(std::ostream& stream, const FormatRow& row)
    {
        return stream << tarn::Format_Name(row.format);
    }
};

const std::vector<FormatRow> all_formats = {
    {Format::Unknown, "", "", true},
    {Format::Empty, "", "", true},
    {Format::Any, "*/*", "", true},
    {Format::AnyText, "text/*", "", false},
    {Format::Text, "text/plain", ".txt", false},
    {Format::Xml, "application/xml", ".xml", false},
    {Format::Html, "text/html", ".html", false},
    {Format::Css, "text/css", ".css", false},
    {Format::Csv, "text/csv", ".csv", false},
    {Format::JavaScript, "text/javascript", ".js", false},
    {Format::UriList, "text/uri-list", ".uris", false},
    {Format::Xsl, "text/xsl", ".xsl", false},
    {Format::AnyImage, "image/*", "", true},
    {Format::Png, "image/png", ".png", true},
    {Format::Jpeg, "image/jpeg", ".jpg", true},
    {Format::Bmp, "image/bmp", ".bmp", true},
    {Format::Svg, "image/svg+xml", ".svg", true},
    {Format::Tiff, "image/tiff", ".tiff", true},
    {Format::Icon, "image/vnd.microsoft.icon", ".ico", true},
    {Format::Gif, "image/gif", ".gif", true},
    {Format::AnyApplication, "application/*", "", true},
    {Format::Json, "application/json", ".json", false},
    {Format::Proto, "application/x-protobuf", ".binpb", true},
    {Format::Bin, "application/octet-stream", ".bin", true},
    {Format::Pdf, "application/pdf", ".pdf", true},
    {Format::Hex, "application/vnd.intel.hex", ".hex", true},
    {Format::TTable, "application/vnd.corvane.translationtable.rev3", ".hex", true},
    {Format::Tar, "application/x-tar", ".tar", true},
    {Format::Gzip, "application/gzip", ".gz", true},
    {Format::Zip, "application/zip", ".zip", true},
    {Format::Sh, "application/x-sh", ".sh", false},
    {Format::Batch, "application/x-bat", ".bat", false},
    {Format::PanelScript, "application/vnd.corvane.panelscript", ".panelscript", false},
    {Format::StageScript, "application/vnd.corvane.stagescript", ".script", false},
    {Format::MarbleFont, "application/vnd.corvane.marble-font", "", true},
    {Format::Reel, "application/vnd.corvane.reel", ".reel", true},
    {Format::Reelist, "application/vnd.corvane.reelist+xml", ".reelist", false},
    {Format::PanelMarkup, "application/vnd.corvane.panelmarkup", ".panelmarkup", true},
    {Format::Sable, "application/sable_sign_config", "", false},
    {Format::AnyVideo, "video/*", "", true},
    {Format::AnyAudio, "audio/*", "", true},
    {Format::AnyFont, "font/*", "", true},
};

class KnownFormat : public testing::TestWithParam<FormatRow> {};

TEST_P(KnownFormat, HasAMimeTypeOrNone)
{
    EXPECT_EQ(tarn::to_mime_type(GetParam().format), GetParam().mime_type);
}

TEST_P(KnownFormat, HasAnExtensionOrNone)
{
    EXPECT_EQ(tarn::to_extension(GetParam().format), GetParam().extension);
}

TEST_P(KnownFormat, TravelsAsBytesOrAsText)
{
    EXPECT_EQ(tarn_internal::is_binary_format(GetParam().format), GetParam().is_binary);
}

INSTANTIATE_TEST_SUITE_P(Formats, KnownFormat, testing::ValuesIn(all_formats),
                         [](const auto& row) { return tarn::Format_Name(row.param.format); });

TEST(KnownFormats, AreAllThatTheSchemaHas)
{
    EXPECT_EQ(all_formats.size(), static_cast<std::size_t>(tarn::Format_descriptor()->value_count()));
}

TEST(UnknownFormatNumber, HasNeitherMimeTypeNorExtensionAndTravelsAsBytes)
{
    const auto format = static_cast<Format>(123456);

    EXPECT_EQ(tarn::to_mime_type(format), "");
    EXPECT_EQ(tarn::to_extension(format), "");
    EXPECT_TRUE(tarn_internal::is_binary_format(format));
}

// ---- to_format ------------------------------------------------------------------------------------------

struct TextRow {
    std::string text;
    Format format;

    friend std::ostream& operator<<(std::ostream& stream, const TextRow& row)
    {
        return stream << '"' << row.text << '"';
    }
};

class FormatText : public testing::TestWithParam<TextRow> {};

TEST_P(FormatText, MeansThisFormat)
{
    EXPECT_EQ(to_format(GetParam().text), GetParam().format);
}

INSTANTIATE_TEST_SUITE_P(NoBody, FormatText,
                         testing::Values(TextRow{"none", Format::Empty}, TextRow{"empty", Format::Empty},
                                         TextRow{"None", Format::Unknown},
                                         TextRow{"EMPTY", Format::Unknown}));

INSTANTIATE_TEST_SUITE_P(
    Nothing, FormatText,
    testing::Values(TextRow{"", Format::Unknown}, TextRow{"*", Format::Unknown},
                    TextRow{"*/*x", Format::Unknown}, TextRow{"*/json", Format::Unknown},
                    TextRow{"audio", Format::Unknown}, TextRow{"audio/mpeg", Format::Unknown},
                    TextRow{"video/mp4", Format::Unknown}, TextRow{"font/ttf", Format::Unknown},
                    TextRow{"image/webp", Format::Unknown}, TextRow{"application/", Format::Unknown},
                    TextRow{"APPLICATION/JSON", Format::Unknown}, TextRow{"Json", Format::Unknown},
                    TextRow{".json", Format::Unknown}, TextRow{" json", Format::Unknown},
                    TextRow{"jso", Format::Unknown}, TextRow{"unknown", Format::Unknown},
                    TextRow{";", Format::Unknown}, TextRow{";json", Format::Unknown}));

INSTANTIATE_TEST_SUITE_P(PercentEncoded, FormatText,
                         testing::Values(TextRow{"application%2Fjson", Format::Json},
                                         TextRow{"application%2fjson", Format::Json},
                                         TextRow{"%6Ason", Format::Json}, TextRow{"%2A/%2A", Format::Any},
                                         // Decoded before it is cut.
                                         TextRow{"json%3Bx", Format::Json},
                                         // A plus does not stand for a blank here.
                                         TextRow{"image/svg+xml", Format::Svg},
                                         TextRow{"image%2Fsvg%2Bxml", Format::Svg},
                                         TextRow{"image/svg xml", Format::Unknown}));

INSTANTIATE_TEST_SUITE_P(Parameters, FormatText,
                         testing::Values(TextRow{"application/json; charset=utf-8", Format::Json},
                                         TextRow{"application/json;charset=utf-8", Format::Json},
                                         TextRow{"text/plain;a;b", Format::Text},
                                         TextRow{"json;", Format::Json}, TextRow{"none;x", Format::Empty},
                                         TextRow{"audio/mpeg; x", Format::Unknown},
                                         TextRow{"what;json", Format::Unknown}));

// ---- paths ----------------------------------------------------------------------------------------------

struct PathRow {
    std::string path;
    Format format;

    friend std::ostream& operator<<(std::ostream& stream, const PathRow& row)
    {
        return stream << '"' << row.path << '"';
    }
};

class FileName : public testing::TestWithParam<PathRow> {};

TEST_P(FileName, TellsTheFormat)
{
    EXPECT_EQ(tarn_internal::to_format_from_path(GetParam().path), GetParam().format);
}

TEST_P(FileName, TellsTheMimeType)
{
    EXPECT_EQ(tarn::to_mime_type(std::filesystem::path(GetParam().path)),
              tarn::to_mime_type(GetParam().format));
}

INSTANTIATE_TEST_SUITE_P(
    Names, FileName,
    testing::Values(PathRow{"a.json", Format::Json}, PathRow{"a.PNG", Format::Bin},
                    PathRow{"noext", Format::Bin}, PathRow{"a.pb.bin", Format::Proto},
                    PathRow{"a.bin", Format::Bin}, PathRow{"", Format::Bin}, PathRow{"a.hex", Format::Hex},
                    PathRow{"a.what", Format::Bin}, PathRow{"a.", Format::Bin},
                    PathRow{"/dir.json/file", Format::Bin}, PathRow{"/dir.pb.bin/file", Format::Bin},
                    PathRow{"/dir/a.tar.gz", Format::Gzip}, PathRow{".pb.bin", Format::Proto},
                    PathRow{"pb.bin", Format::Bin}, PathRow{"xpb.bin", Format::Bin},
                    PathRow{"a.pb.bin.txt", Format::Text}, PathRow{"a.PB.BIN", Format::Bin},
                    // A dot in front makes a hidden file, and no extension.
                    PathRow{".json", Format::Bin}, PathRow{".x.json", Format::Json},
                    // Words of other kinds are not extensions.
                    PathRow{"a.none", Format::Bin}, PathRow{"a.application", Format::Bin}));

TEST(TranslationTable, ComesBackAsHexOnceItIsSaved)
{
    const std::string file = "table" + tarn::to_extension(Format::TTable);

    EXPECT_EQ(file, "table.hex");
    EXPECT_EQ(tarn_internal::to_format_from_path(file), Format::Hex);
}

// ---- values of headers ----------------------------------------------------------------------------------

struct HeaderRow {
    std::string value;
    Formats formats;

    friend std::ostream& operator<<(std::ostream& stream, const HeaderRow& row)
    {
        return stream << '"' << row.value << '"';
    }
};

class ContentTypeValue : public testing::TestWithParam<HeaderRow> {};

TEST_P(ContentTypeValue, NamesOneFormatAtMost)
{
    Formats formats;

    tarn::parse_content_type(GetParam().value, formats);

    EXPECT_EQ(formats, GetParam().formats);
}

INSTANTIATE_TEST_SUITE_P(Values, ContentTypeValue,
                         testing::Values(HeaderRow{"", {}}, HeaderRow{"text/csv", {Format::Csv}},
                                         HeaderRow{"text/plain; charset=utf-8", {Format::Text}},
                                         HeaderRow{"json", {Format::Json}},
                                         HeaderRow{"none", {Format::Empty}},
                                         HeaderRow{"image/svg+xml", {Format::Svg}},
                                         HeaderRow{"what/ever", {}}, HeaderRow{"text/csv,text/plain", {}}));

TEST(ContentTypeValue, IsAppended)
{
    Formats formats = {Format::Json};

    tarn::parse_content_type("json", formats);
    tarn::parse_content_type("what", formats);
    tarn::parse_content_type("text/csv", formats);

    EXPECT_EQ(formats, (Formats{Format::Json, Format::Json, Format::Csv}));
}

class AcceptValue : public testing::TestWithParam<HeaderRow> {};

TEST_P(AcceptValue, NamesFormatsTheMostWantedFirst)
{
    const tarn_test::LogCapture log;
    slate::set_log_level(slate::DebugLevel);
    Formats formats;

    tarn::parse_accept(GetParam().value, formats);

    EXPECT_EQ(formats, GetParam().formats);
    EXPECT_TRUE(log.lines().empty());
}

INSTANTIATE_TEST_SUITE_P(
    WithoutFactors, AcceptValue,
    testing::Values(HeaderRow{"", {}}, HeaderRow{"text/plain", {Format::Text}},
                    HeaderRow{"text/plain,application/json", {Format::Text, Format::Json}},
                    HeaderRow{"application/json,text/plain", {Format::Json, Format::Text}},
                    HeaderRow{"text/plain,text/plain,json", {Format::Text, Format::Text, Format::Json}},
                    HeaderRow{"what,text/plain,ever", {Format::Text}},
                    HeaderRow{",text/plain,,json,", {Format::Text, Format::Json}}, HeaderRow{",", {}},
                    HeaderRow{"*/*", {Format::Any}}, HeaderRow{"what/ever", {}},
                    HeaderRow{"application/x-protobuf,image/png", {Format::Proto, Format::Png}},
                    HeaderRow{"text/html, application/json", {Format::Html, Format::Json}},
                    HeaderRow{" text/html ,\tapplication/json ", {Format::Html, Format::Json}}));

INSTANTIATE_TEST_SUITE_P(
    WithFactors, AcceptValue,
    testing::Values(
        HeaderRow{"text/plain;q=0.5,application/json;q=0.9", {Format::Json, Format::Text}},
        HeaderRow{"text/html, application/json; q=0.5", {Format::Html, Format::Json}},
        HeaderRow{"application/json; q=0.5, text/html", {Format::Html, Format::Json}},
        HeaderRow{" text/html ; q = 0.5 , application/json ; q = 0.9 ", {Format::Json, Format::Html}},
        HeaderRow{"text/plain;q=0.1,text/csv;q=0.3,json;q=0.2", {Format::Csv, Format::Json, Format::Text}},
        // Of equal factors the last one is kept, at the place of its factor.
        HeaderRow{"text/plain;q=0.5,text/csv;q=0.5", {Format::Csv}},
        HeaderRow{"text/plain;q=0.5,json;q=0.7,text/csv;q=0.50", {Format::Json, Format::Csv}},
        HeaderRow{"json;q=0.5,text/plain;q=0.4,json;q=0.3", {Format::Json, Format::Text, Format::Json}},
        HeaderRow{"application/xml,text/csv;level=1", {Format::Csv}},
        // A factor of 0 excludes nothing, and one above 1 comes first.
        HeaderRow{"text/plain;q=0,text/csv;q=0.1", {Format::Csv, Format::Text}},
        HeaderRow{"text/csv,text/plain;q=1.5", {Format::Text, Format::Csv}},
        HeaderRow{"text/plain;q=-1,text/csv;q=0", {Format::Csv, Format::Text}},
        HeaderRow{"text/plain;q=1e-3,text/csv;q=+0.5", {Format::Csv, Format::Text}},
        // The first "q" counts, wherever it stands.
        HeaderRow{"text/plain;q=0.5;q=0.9,text/csv;q=0.7", {Format::Csv, Format::Text}},
        HeaderRow{"text/plain;level=1;q=0.2,text/csv;q=0.3", {Format::Csv, Format::Text}},
        HeaderRow{"text/plain;Q=0.1,text/csv;q=0.5", {Format::Text, Format::Csv}},
        HeaderRow{"text/plain;qq=0.1,text/csv;q=0.5", {Format::Text, Format::Csv}},
        // A number is read as far as it goes.
        HeaderRow{"text/plain;q=0.5x,text/csv;q=0.7", {Format::Csv, Format::Text}},
        // And may be hexadecimal.
        HeaderRow{"text/plain;q=0x2,text/csv", {Format::Text, Format::Csv}},
        HeaderRow{"text/plain;q=0x1,text/csv;q=1", {Format::Csv}},
        // What means nothing takes no factor from others.
        HeaderRow{"what;q=0.5,text/csv;q=0.5", {Format::Csv}},
        HeaderRow{"text/csv;q=0.5,what;q=0.5", {Format::Csv}}, HeaderRow{"what;q=1", {}}));

// Any of these characters, wherever it stands, and everything without a factor of its own has factor 1.
INSTANTIATE_TEST_SUITE_P(WithTheLookOfFactors, AcceptValue,
                         testing::Values(HeaderRow{"text/plain,text/csv,q", {Format::Csv}},
                                         HeaderRow{"text/plain,text/csv,aqua", {Format::Csv}},
                                         HeaderRow{"text/plain,text/csv,=", {Format::Csv}},
                                         HeaderRow{"text/plain,text/csv;", {Format::Csv}}));

TEST(AcceptValue, IsReadAlikeWhateverTheLocale)
{
    const CommaLocale locale;
    if (!locale.is_set())
        GTEST_SKIP() << "the system can't compile locales";
    Formats formats;

    // With a decimal comma, all factors would be 0, and only the last format would be kept.
    tarn::parse_accept("text/csv;q=0.5,json;q=0.9,text/plain;q=0.1", formats);

    EXPECT_EQ(formats, (Formats{Format::Json, Format::Csv, Format::Text}));
}

TEST(AcceptValue, IsAppended)
{
    Formats formats = {Format::Json};

    tarn::parse_accept("text/csv,json", formats);
    tarn::parse_accept("text/csv;q=0.1,json;q=0.2", formats);
    tarn::parse_accept("", formats);

    EXPECT_EQ(formats, (Formats{Format::Json, Format::Csv, Format::Json, Format::Json, Format::Csv}));
}

class AcceptValueWithABadFactor : public testing::TestWithParam<HeaderRow> {};

TEST_P(AcceptValueWithABadFactor, CountsItAsOneAndSaysSo)
{
    const tarn_test::LogCapture log;
    slate::set_log_level(slate::DebugLevel);
    Formats formats;

    tarn::parse_accept(GetParam().value, formats);

    EXPECT_EQ(formats, GetParam().formats);
    EXPECT_TRUE(log.has(slate::DebugLevel, "ignoring invalid q-factor value"));
    EXPECT_EQ(log.lines().size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(
    Values, AcceptValueWithABadFactor,
    testing::Values(HeaderRow{"text/plain;q=abc", {Format::Text}},
                    HeaderRow{"text/csv;q=0.9,text/plain;q=abc", {Format::Text, Format::Csv}},
                    HeaderRow{"text/csv;q=0.9,text/plain;q=", {Format::Text, Format::Csv}},
                    HeaderRow{"text/csv;q=0.9,text/plain;q", {Format::Text, Format::Csv}},
                    HeaderRow{"text/csv;q=0.9,text/plain;q=1e999", {Format::Text, Format::Csv}},
                    HeaderRow{"text/csv;q=0.9,text/plain;q=1e-310", {Format::Text, Format::Csv}},
                    HeaderRow{"text/csv;q=0.9,text/plain;q=+-1", {Format::Text, Format::Csv}},
                    HeaderRow{"text/csv;q=0.9,text/plain;q=nan", {Format::Text, Format::Csv}},
                    // No second "q" is looked for.
                    HeaderRow{"text/csv;q=0.9,text/plain;q=abc;q=0.1", {Format::Text, Format::Csv}}));

TEST(AcceptValue, LogsNothingOfABadFactorWhileDebugLoggingIsOff)
{
    const tarn_test::LogCapture log;
    slate::set_log_level(slate::InfoLevel);
    Formats formats;

    tarn::parse_accept("text/plain;q=abc", formats);

    EXPECT_EQ(formats, Formats{Format::Text});
    EXPECT_TRUE(log.lines().empty());
}

class AcceptValueWithAnEmptyItem : public testing::TestWithParam<const char*> {};

TEST_P(AcceptValueWithAnEmptyItem, IsRefused)
{
    Formats formats;

    EXPECT_THROW(tarn::parse_accept(GetParam(), formats), std::out_of_range);
}

INSTANTIATE_TEST_SUITE_P(Values, AcceptValueWithAnEmptyItem, testing::Values(";", "text/plain,;", "; ;"));
} // namespace
