// A user and a password.
#pragma once

#include "talvo/base/secret.h"

// A value; copying never fails. An empty user: there are no credentials.
struct CCmCredentials {
    CCmSecret m_User;      // "": there are no credentials
    CCmSecret m_Password;  // may be ""

    // Results as CCmSecret::Set. A failure leaves both unchanged.
    CmResult Set(std::string_view aUser, std::string_view aPassword) {
        CCmCredentials made;
        CmResult rv = made.m_User.Set(aUser);
        if (rv == CM_OK)
            rv = made.m_Password.Set(aPassword);
        if (rv == CM_OK)
            *this = made;
        return rv;
    }

    explicit operator bool() const { return !m_User.IsEmpty(); }  // there are credentials
    bool operator==(const CCmCredentials&) const = default;
};
