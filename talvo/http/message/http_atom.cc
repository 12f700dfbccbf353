#include "talvo/http/message/http_atom.h"

#include <string_view>

#include "talvo/http/message/http_text.h"

bool CCmHttpAtom::operator<(const CCmHttpAtom& aRight) const {
    if (!m_pText || !aRight.m_pText)
        return !m_pText && aRight.m_pText;
    return talvo::compare_no_case(m_pText, aRight.m_pText) < 0;
}

bool CCmAtomTablesFind::operator()(const CCmHttpAtom& aCandidate) const {
    const char *pText = m_Atom, *pCandidate = aCandidate;
    if (!pText || !pCandidate)
        return pText == pCandidate;
    return talvo::equal_no_case(pText, pCandidate);
}
