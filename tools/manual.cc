#include "tools/manual.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sstream>

#include "tools/completion.h"
#include "tools/console.h"
#include "tools/options.h"

namespace tool {

namespace {

// aText for roff: no character of it begins a request.
std::string Escape(const std::string& aText) {
    std::string strText;
    for (const char c : aText) {
        if (c == '\\')
            strText += "\\e";
        else if (c == '-')
            strText += "\\-";
        else
            strText += c;
    }
    return strText.starts_with('.') || strText.starts_with('\'') ? "\\&" + strText : strText;
}

// Words that mdoc would take for macros on a macro line.
std::string Argument(const std::string& aText) { return "\\&" + Escape(aText); }

// A line ends after a sentence, and at 72 columns.
std::string Fill(const std::string& aText) {
    std::istringstream words(aText);
    std::string strPage, strLine;
    for (std::string strWord; words >> strWord;) {
        if (!strLine.empty() && (strLine.size() + strWord.size() > 72 || strLine.ends_with('.'))) {
            strPage += strLine + "\n";
            strLine.clear();
        }
        strLine += strLine.empty() ? Escape(strWord) : " " + Escape(strWord);
    }
    return strLine.empty() ? strPage : strPage + strLine + "\n";
}

std::string MakeDate() {
    const char* pEpoch = std::getenv("SOURCE_DATE_EPOCH");
    const time_t nTime = pEpoch ? static_cast<time_t>(std::strtoll(pEpoch, nullptr, 10)) : std::time(nullptr);
    tm parts{};
    gmtime_r(&nTime, &parts);
    char szMonth[16];
    std::strftime(szMonth, sizeof(szMonth), "%B", &parts);
    return std::string(szMonth) + " " + std::to_string(parts.tm_mday) + ", " + std::to_string(1900 + parts.tm_year);
}

std::string MakeHead(const std::string& aTitle, std::string aSummary) {
    std::string strTitle = aTitle;
    std::transform(strTitle.begin(), strTitle.end(), strTitle.begin(), [](unsigned char c) { return std::toupper(c); });
    if (aSummary.ends_with('.'))
        aSummary.pop_back();
    return ".Dd " + MakeDate() + "\n.Dt " + strTitle + " 1\n.Os\n.Sh NAME\n.Nm " + aTitle + "\n.Nd " + Escape(aSummary) +
           "\n.Sh SYNOPSIS\n.Nm talvo\n";
}

std::string MakeOptions(const CommandRow& aCommand) {
    std::string strList;
    for (const OptionRow& row : aCommand.m_vecOptions) {
        strList += ".It";
        for (size_t i = 0; i < row.m_vecNames.size(); ++i)
            strList += (i > 0 ? " , Fl " : " Fl ") + Escape(row.m_vecNames[i].substr(1));
        if (!row.m_strValue.empty())
            strList += " Ar " + Argument(row.m_strValue);
        strList += "\n" + Fill(row.m_strHelp + ".");
    }
    return ".Bl -tag -width Ds\n" + strList + ".El\n";
}

// Lines with a blank at the front are kept as they are.
std::string MakeNotes(const std::string& aText) {
    std::string strPage, strParagraph, strVerbatim;
    const auto end = [&] {
        strPage += Fill(strParagraph);
        if (!strVerbatim.empty())
            strPage += ".Bd -literal -offset indent\n" + strVerbatim + ".Ed\n";
        strParagraph.clear();
        strVerbatim.clear();
    };
    std::istringstream lines(aText);
    for (std::string strLine; std::getline(lines, strLine);) {
        if (strLine.starts_with(' ')) {
            strVerbatim += Escape(strLine.substr(2)) + "\n";
            continue;
        }
        if (strLine.empty() || !strVerbatim.empty())
            end();
        if (strLine.empty())
            strPage += ".Pp\n";
        strParagraph += strLine + " ";
    }
    end();
    return strPage;
}

// The examples of the notes that use the command.
std::string MakeExamples(const std::string& aNotes, const std::string& aCommand) {
    std::string strExamples;
    std::istringstream lines(aNotes);
    for (std::string strLine; std::getline(lines, strLine);) {
        if (strLine.starts_with("  ") && (strLine + " ").find("talvo " + aCommand + " ") != std::string::npos)
            strExamples += Escape(strLine.substr(2)) + "\n";
    }
    return strExamples.empty() ? "" : ".Sh EXAMPLES\n.Bd -literal -offset indent\n" + strExamples + ".Ed\n";
}

std::string MakeProgramPage(const OptionTable& aTable) {
    std::string strPage = MakeHead("talvo", aTable.m_Program.m_strSummary) + ".Ar command\n.Op Ar option ...\n";
    strPage += ".Sh DESCRIPTION\n" + Fill(aTable.m_Program.m_strSummary) + "The commands are:\n.Bl -tag -width Ds\n";
    for (const CommandRow& command : aTable.m_vecCommands)
        strPage += ".It Cm " + Argument(command.m_strName) + "\n" + Fill(command.m_strSummary + ".");
    strPage += ".El\n.Pp\nOptions of the program itself:\n" + MakeOptions(aTable.m_Program);
    return strPage + ".Sh NOTES\n" + MakeNotes(aTable.m_strNotes);
}

std::string MakeCommandPage(const OptionTable& aTable, const CommandRow& aCommand) {
    CommandRow options = aCommand;
    CommandRow places = aCommand;
    std::erase_if(options.m_vecOptions, [](const OptionRow& a) { return a.m_vecNames.empty(); });
    std::erase_if(places.m_vecOptions, [](const OptionRow& a) { return !a.m_vecNames.empty(); });
    std::string strPage = MakeHead("talvo-" + aCommand.m_strName, aCommand.m_strSummary);
    strPage += ".Cm " + Argument(aCommand.m_strName) + "\n.Op Ar option ...\n";
    for (const OptionRow& row : places.m_vecOptions)
        strPage += (row.m_bRequired ? ".Ar " : ".Op Ar ") + Argument(row.m_strValue) + "\n";
    strPage += ".Sh DESCRIPTION\n" + Fill(aCommand.m_strSummary + ".");
    strPage += places.m_vecOptions.empty() ? "" : MakeOptions(places);
    strPage += ".Pp\nThe options are:\n" + MakeOptions(options) + MakeExamples(aTable.m_strNotes, aCommand.m_strName);
    // Not as a reference, for which mandoc warns until the other page is installed.
    return strPage + ".Sh SEE ALSO\n.Sy talvo Ns Pq 1\n";
}

std::string ListNames(const OptionTable& aTable) {
    std::string strNames;
    for (const CommandRow& command : aTable.m_vecCommands)
        strNames += command.m_strName + "\n";
    return strNames;
}

}  // namespace

std::string MakeManual(const OptionTable& aTable, const std::string& aCommand) {
    for (const CommandRow& command : aTable.m_vecCommands) {
        if (command.m_strName == aCommand)
            return MakeCommandPage(aTable, command);
    }
    return MakeProgramPage(aTable);
}

void DeclareHelp(CLI::App& aApp, Arguments& a) {
    AddText(aApp, "command", a.m_strHelpOn, "COMMAND", "Command to describe; by default the program");
    AddChoice(aApp, "--format", a.m_strHelpFormat, {"text", "man", "bash", "zsh", "fish", "names"}, "FORMAT",
              "text (the default), man for a manual page, bash, zsh or fish for a completion, or names for the names of all "
              "commands");
}

std::string DescribeUnknown(const std::string& aCommand) { return "'" + aCommand + "' is no command; 'talvo help' lists them"; }

std::string PrintHelp(const CLI::App& aApp, const Arguments& a) {
    const OptionTable table = ReadOptions(aApp);
    const auto isMeant = [&](const CommandRow& aRow) { return aRow.m_strName == a.m_strHelpOn; };
    if (!a.m_strHelpOn.empty() && std::none_of(table.m_vecCommands.begin(), table.m_vecCommands.end(), isMeant))
        return DescribeUnknown(a.m_strHelpOn);
    std::string strText;
    if (a.m_strHelpFormat == "man")
        strText = MakeManual(table, a.m_strHelpOn);
    else if (a.m_strHelpFormat == "text")
        strText = GetHelpText(aApp, a.m_strHelpOn);
    else if (a.m_strHelpFormat == "names")
        strText = ListNames(table);
    else
        strText = MakeCompletion(table, a.m_strHelpFormat);
    Console::Print(strText);
    return "";
}

}  // namespace tool
