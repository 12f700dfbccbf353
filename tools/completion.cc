#include "tools/completion.h"

namespace tool {

namespace {

// What a value is, from its placeholder.
enum EValue { NONE, CHOICE, FILE_NAME, FOLDER, OTHER };

EValue GetValue(const OptionRow& aRow) {
    if (aRow.m_strValue.empty())
        return NONE;
    if (!aRow.m_vecChoices.empty())
        return CHOICE;
    if (aRow.m_strValue.starts_with("FILE") || aRow.m_strValue.starts_with("PATH"))
        return FILE_NAME;
    return aRow.m_strValue == "DIR" ? FOLDER : OTHER;
}

std::string Join(const std::vector<std::string>& aTexts, const std::string& aBetween) {
    std::string strText;
    for (const std::string& strPart : aTexts)
        strText += strText.empty() ? strPart : aBetween + strPart;
    return strText;
}

std::string GetCommands(const OptionTable& aTable) {
    std::vector<std::string> vecNames;
    for (const CommandRow& command : aTable.m_vecCommands)
        vecNames.push_back(command.m_strName);
    return Join(vecNames, " ");
}

std::string GetNames(const CommandRow& aCommand) {
    std::vector<std::string> vecNames;
    for (const OptionRow& row : aCommand.m_vecOptions)
        vecNames.insert(vecNames.end(), row.m_vecNames.begin(), row.m_vecNames.end());
    return Join(vecNames, " ");
}

// aText within single quotes of a shell.
std::string Quote(const std::string& aText, const char* aQuoteWithin) {
    std::string strText;
    for (const char c : aText)
        strText += c == '\'' ? aQuoteWithin : std::string(1, c);
    return "'" + strText + "'";
}

// A command's values: one case for each option that has one.
std::string MakeBashValues(const CommandRow& aCommand) {
    std::string strCases;
    for (const OptionRow& row : aCommand.m_vecOptions) {
        const EValue value = GetValue(row);
        if (value == NONE || row.m_vecNames.empty())
            continue;
        strCases += "        '" + aCommand.m_strName + " " + Join(row.m_vecNames, "' | '" + aCommand.m_strName + " ") + "') ";
        if (value == CHOICE)
            strCases += "words='" + Join(row.m_vecChoices, " ") + "' ;;\n";
        else if (value == FOLDER)
            strCases += "mapfile -t COMPREPLY < <(compgen -d -- \"$current\"); return ;;\n";
        else
            strCases += value == FILE_NAME ? "return ;;\n" : "compopt +o default; return ;;\n";
    }
    return strCases;
}

std::string MakeBash(const OptionTable& aTable) {
    std::string strCases, strOptions;
    for (const CommandRow& command : aTable.m_vecCommands) {
        strCases += MakeBashValues(command);
        strOptions += "        '" + command.m_strName + "') words='" + GetNames(command) + "' ;;\n";
    }
    return "# Completion of talvo for bash.\n"
           "_talvo() {\n"
           "    local current=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]} command=${COMP_WORDS[1]} words=\n"
           "    COMPREPLY=()\n"
           "    # The shell takes \"--type=reliable\" for three words.\n"
           "    if [ \"$current\" = = ]; then\n"
           "        current=\n"
           "    elif [ \"$before\" = = ]; then\n"
           "        before=${COMP_WORDS[COMP_CWORD-2]}\n"
           "    fi\n"
           "    if [ \"$COMP_CWORD\" -eq 1 ] || { [ \"$command\" = help ] && [ \"$COMP_CWORD\" -eq 2 ]; }; then\n"
           "        words='" +
           GetCommands(aTable) + " " + GetNames(aTable.m_Program) +
           "'\n"
           "    else\n"
           "        case \"$command $before\" in\n" +
           strCases +
           "        *)\n"
           "            [[ $current == -* ]] || return\n"
           "            case \"$command\" in\n" +
           strOptions +
           "            esac\n"
           "            ;;\n"
           "        esac\n"
           "    fi\n"
           "    mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$current\")\n"
           "}\n"
           "complete -o default -o filenames -F _talvo talvo\n";
}

// The text of a help, escaped for an argument of zsh's _arguments.
std::string EscapeZsh(const std::string& aText) {
    std::string strText;
    for (const char c : aText) {
        if (c == ':' || c == '[' || c == ']' || c == '\\')
            strText += '\\';
        strText += c;
    }
    return strText;
}

std::string MakeZshAction(const OptionRow& aRow) {
    switch (GetValue(aRow)) {
    case CHOICE:
        return "(" + Join(aRow.m_vecChoices, " ") + ")";
    case FILE_NAME:
        return "_files";
    case FOLDER:
        return "_files -/";
    case NONE:
    case OTHER:
        break;
    }
    return " ";
}

std::string MakeZshOptions(const CommandRow& aCommand) {
    std::string strSpecs;
    for (const OptionRow& row : aCommand.m_vecOptions) {
        const std::string strValue = row.m_strValue.empty() ? "" : ":" + EscapeZsh(row.m_strValue) + ":" + MakeZshAction(row);
        for (const std::string& strName : row.m_vecNames)
            strSpecs += " \\\n            " + Quote(strName + "[" + EscapeZsh(row.m_strHelp) + "]" + strValue, "'\\''");
        if (row.m_vecNames.empty())
            strSpecs += " \\\n            " + Quote("*" + strValue, "'\\''");
    }
    return strSpecs;
}

std::string MakeZsh(const OptionTable& aTable) {
    std::string strCommands, strCases;
    for (const CommandRow& command : aTable.m_vecCommands) {
        strCommands += "        " + Quote(command.m_strName + ":" + command.m_strSummary, "'\\''") + "\n";
        strCases += "    " + command.m_strName + ")\n        _arguments" + MakeZshOptions(command) + "\n        ;;\n";
    }
    return "#compdef talvo\n"
           "_talvo() {\n"
           "    local -a commands\n"
           "    commands=(\n" +
           strCommands +
           "    )\n"
           "    if (( CURRENT == 2 )) || [[ $words[2] == help && CURRENT -eq 3 ]]; then\n"
           "        _describe command commands\n"
           "        return\n"
           "    fi\n"
           "    shift words\n"
           "    (( CURRENT-- ))\n"
           "    case $words[1] in\n" +
           strCases +
           "    esac\n"
           "}\n"
           "_talvo \"$@\"\n";
}

std::string MakeFishOption(const std::string& aCommand, const OptionRow& aRow) {
    std::string strLine = "complete -c talvo -n '__fish_seen_subcommand_from " + aCommand + "'";
    for (const std::string& strName : aRow.m_vecNames)
        strLine += strName.starts_with("--") ? " -l " + strName.substr(2) : " -s " + strName.substr(1);
    const EValue value = GetValue(aRow);
    if (value == FILE_NAME)
        strLine += " -r -F";
    else if (value == FOLDER)
        strLine += " -x -a '(__fish_complete_directories)'";
    else if (value != NONE)
        strLine += value == CHOICE ? " -x -a '" + Join(aRow.m_vecChoices, " ") + "'" : " -x";
    return strLine + " -d " + Quote(aRow.m_strHelp, "\\'") + "\n";
}

std::string MakeFish(const OptionTable& aTable) {
    std::string strScript = "# Completion of talvo for fish.\n";
    for (const CommandRow& command : aTable.m_vecCommands) {
        strScript += "complete -c talvo -f -n __fish_use_subcommand -a " + command.m_strName + " -d " +
                     Quote(command.m_strSummary, "\\'") + "\n";
        for (const OptionRow& row : command.m_vecOptions)
            strScript += row.m_vecNames.empty() ? "" : MakeFishOption(command.m_strName, row);
    }
    return strScript + "complete -c talvo -f -n '__fish_seen_subcommand_from help' -a '" + GetCommands(aTable) + "'\n";
}

}  // namespace

std::string MakeCompletion(const OptionTable& aTable, const std::string& aShell) {
    if (aShell == "bash")
        return MakeBash(aTable);
    return aShell == "zsh" ? MakeZsh(aTable) : MakeFish(aTable);
}

}  // namespace tool
