#include "talvo/base/base64.h"
#include "talvo/http/message/http_auth.h"
#include "talvo/http/message/ntlm_hash.h"
#include "talvo/http/message/ntlm_message.h"
#include "talvo/http/message/ntlm_permission.h"
#include "tests/support/test.h"

using namespace talvo;

namespace {

std::string FromHex(std::string_view aHex) {
    std::string strBytes;
    for (size_t i = 0; i + 1 < aHex.size(); i += 2)
        strBytes += static_cast<char>(std::stoi(std::string(aHex.substr(i, 2)), nullptr, 16));
    return strBytes;
}

// The challenge of [MS-NLMP], section 4.2.4.3.
const std::string CHALLENGE = FromHex(
    "4e544c4d53535000020000000c000c003800000033828ae20123456789abcdef00000000000000002400240044000000060070170000000f5300650072"
    "00"
    "76006500720002000c0044006f006d00610069006e0001000c00530065007200760065007200"
    "00000000");
const std::string PAIRS = FromHex("02000c0044006f006d00610069006e0001000c00530065007200760065007200");

// The same with other pairs.
std::string WithPairs(const std::string& aPairs) {
    std::string strMessage = CHALLENGE.substr(0, 0x44) + aPairs;
    strMessage[40] = strMessage[42] = static_cast<char>(aPairs.size());
    return strMessage;
}

CmResult Answer(const std::string& aMessage, const char* aUser, std::string& aAnswer) {
    CNtlmChallenge challenge;
    EXPECT_TRUE(ReadNtlmChallenge(aMessage, challenge));
    CNtlmChance chance;
    chance.m_ClientChallenge.fill('\xaa');
    CCmCredentials credentials;
    EXPECT_EQ(CM_OK, credentials.Set(aUser, "Password"));
    CCmSecret answer;
    const CmResult rv = MakeNtlmAuthenticate(credentials, MakeNtlmNegotiate(), aMessage, challenge, chance, answer);
    aAnswer = answer.Get();
    return rv;
}

// The text of the field at aAt.
std::string Field(const std::string& aMessage, size_t aAt) {
    const auto byteAt = [&](size_t aIndex) { return size_t{static_cast<unsigned char>(aMessage.at(aIndex))}; };
    return aMessage.substr(byteAt(aAt + 4) | byteAt(aAt + 5) << 8, byteAt(aAt) | byteAt(aAt + 1) << 8);
}

std::string Utf16(const char* aText) {
    CCmSecret text;
    EXPECT_EQ(CM_OK, ToUtf16(aText, text));
    return std::string(text.Get());
}

}  // namespace

// [MS-NLMP], section 4.2.4.
TEST(NtlmTest, ResponsesAreThePublishedOnes) {
    CNtlmKey key;
    ASSERT_EQ(CM_OK, MakeNtlmKey(Utf16("User"), Utf16("Domain"), Utf16("Password"), key));
    EXPECT_EQ(FromHex("0c868a403bfd7a93a3001ef22ef02e3f"), key.View());
    std::string strAnswer;
    ASSERT_EQ(CM_OK, Answer(CHALLENGE, "Domain\\User", strAnswer));
    EXPECT_EQ(FromHex("86c35097ac9cec102554764a57cccc19aaaaaaaaaaaaaaaa"), Field(strAnswer, 12));
    const std::string strNt = Field(strAnswer, 20);
    EXPECT_EQ(FromHex("68cd0ab851e51c96aabc927bebef6a1c"), strNt.substr(0, 16));
    EXPECT_EQ(FromHex("01010000000000000000000000000000aaaaaaaaaaaaaaaa00000000") + PAIRS + std::string(8, '\0'),
              strNt.substr(16));
    EXPECT_EQ(Utf16("Domain"), Field(strAnswer, 28));
    EXPECT_EQ(Utf16("User"), Field(strAnswer, 36));
    CNtlmKey session;
    ASSERT_TRUE(HmacMd5(key, {strNt.substr(0, 16)}, session));
    EXPECT_EQ(FromHex("8de40ccadbc14a82f15cb0ad0de95ca3"), session.View());
}

TEST(NtlmTest, ATimestampOfTheServerGetsAMic) {
    const std::string strTime = FromHex("07000800") + "12345678";
    const std::string strMessage = WithPairs(PAIRS + FromHex("0600040004000000") + strTime + std::string(4, '\0'));
    std::string strAnswer;
    ASSERT_EQ(CM_OK, Answer(strMessage, "Domain\\User", strAnswer));
    const std::string strNt = Field(strAnswer, 20);
    EXPECT_EQ("12345678", strNt.substr(24, 8));
    EXPECT_NE(std::string::npos, strNt.find(PAIRS + strTime + FromHex("06000400060000000000000000000000")));
    EXPECT_EQ(std::string(24, '\0'), Field(strAnswer, 12));
    CNtlmKey key, session, mic;
    ASSERT_EQ(CM_OK, MakeNtlmKey(Utf16("User"), Utf16("Domain"), Utf16("Password"), key));
    ASSERT_TRUE(HmacMd5(key, {strNt.substr(0, 16)}, session));
    ASSERT_TRUE(HmacMd5(
        session, {MakeNtlmNegotiate(), strMessage, strAnswer.substr(0, 72), std::string(16, '\0'), strAnswer.substr(88)}, mic));
    EXPECT_EQ(mic.View(), strAnswer.substr(72, 16));
}

TEST(NtlmTest, MalformedChallengesAreRefused) {
    CNtlmChallenge challenge;
    for (size_t stLength = 0; stLength < CHALLENGE.size(); ++stLength)
        EXPECT_FALSE(ReadNtlmChallenge(std::string_view(CHALLENGE).substr(0, stLength), challenge)) << stLength;
    const auto withByte = [](size_t aAt, char aByte) {
        std::string strMessage = CHALLENGE;
        strMessage[aAt] = aByte;
        return strMessage;
    };
    const std::string CASES[] = {withByte(0, 'X'),
                                 withByte(8, 3),  // another message
                                 withByte(20, 0),
                                 withByte(22, 0),  // no Unicode, no target info
                                 withByte(12, 13),
                                 withByte(40, 0x23),  // odd lengths
                                 withByte(40, 0),
                                 withByte(40, 0x26),  // an empty list, and one that reaches outside
                                 withByte(44, 0x2F),
                                 withByte(47, '\xFF'),  // from inside the head, and from far behind the end
                                 withByte(0x46, 0x0D),
                                 withByte(0x46, 0x7E),  // a name of odd length, and one that is too long
                                 WithPairs(PAIRS),
                                 WithPairs(PAIRS + "\x7\0\x4\0abcd\0\0\0\0"),
                                 WithPairs(PAIRS + FromHex("0000020000000000")),
                                 WithPairs(PAIRS + FromHex("07000400aabbccdd00000000")),
                                 CHALLENGE + std::string(4096, '\0')};
    for (const std::string& strMessage : CASES)
        EXPECT_FALSE(ReadNtlmChallenge(strMessage, challenge)) << &strMessage - CASES;
    std::string strAnswer;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, Answer(CHALLENGE, "\xC3(", strAnswer));
}

TEST(NtlmTest, NamesOfOtherAlphabetsAreKnown) {
    std::string strName = Utf16("aZ\u00e9\u00ff\u00f7\u03b1\u043f\u0451\U0001F600");
    UpperUtf16(strName.data(), strName.size());
    EXPECT_EQ(Utf16("AZ\u00c9\u0178\u00f7\u0391\u041f\u0401\U0001F600"), strName);
    CCmSecret text;
    for (const char* szText : {"\x80", "\xC3", "\xC0\x80", "\xE0\x80\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xFF"})
        EXPECT_EQ(CM_ERROR_INVALID_ARG, ToUtf16(szText, text)) << szText;
}

// The three messages of one connection, its reuse, a refusal, and a server that closes in between.
TEST(NtlmTest, AConnectionIsAuthenticatedOnce) {
    CCmString strToken;
    cm_base64_encode(CHALLENGE.data(), CHALLENGE.size(), strToken);
    const std::string strChallenge = "NTLM " + strToken;
    CHttpAuthenticator authenticator;
    const auto lengthOfNext = [&] {
        CCmSecret value;
        EXPECT_EQ(CM_OK, authenticator.Authorize("GET", "/", value));
        return value.Get().size();
    };
    const size_t FIRST = 5 + 44;  // the scheme and 32 bytes in base64
    EXPECT_EQ(CM_OK, authenticator.SetCredentials("d\\u", "p"));
    EXPECT_FALSE(authenticator.OnChallenges("NTLM", TRUE, TRUE));  // not allowed
    AllowNtlm(TRUE);
    EXPECT_FALSE(authenticator.OnChallenges("NTLM", FALSE, TRUE));  // a proxy may share the connection
    EXPECT_FALSE(authenticator.GetIdentity());
    EXPECT_TRUE(authenticator.OnChallenges("NTLM\nBasic realm=\"r\"", TRUE, FALSE));
    EXPECT_FALSE(authenticator.NeedsSameConnection());
    EXPECT_EQ(FIRST, lengthOfNext());
    EXPECT_TRUE(authenticator.OnChallenges(strChallenge + ", Basic realm=\"r\"", TRUE, TRUE));
    EXPECT_TRUE(authenticator.NeedsSameConnection());
    EXPECT_EQ("d\\u", authenticator.GetIdentity().m_User.Get());
    EXPECT_LT(FIRST, lengthOfNext());
    authenticator.OnAccepted();
    EXPECT_EQ(0u, lengthOfNext());
    authenticator.OnConnection(TRUE);
    EXPECT_EQ(0u, lengthOfNext());
    authenticator.OnConnection(FALSE);
    EXPECT_EQ(FIRST, lengthOfNext());
    EXPECT_TRUE(authenticator.OnChallenges(strChallenge, TRUE, TRUE));
    lengthOfNext();
    EXPECT_FALSE(authenticator.OnChallenges("NTLM", TRUE, TRUE));  // the third message was refused
    for (const auto& [strSecond, bStaysOpen] :
         {std::pair<std::string, BOOL>{strChallenge, FALSE}, {"NTLM", TRUE}, {"NTLM AAAA", TRUE}}) {
        authenticator.OnConnection(FALSE);
        lengthOfNext();
        EXPECT_FALSE(authenticator.OnChallenges(strSecond, TRUE, bStaysOpen)) << strSecond;
    }
    int nTries = 0;
    authenticator.OnAccepted();
    do {
        authenticator.OnConnection(FALSE);
        lengthOfNext();
    } while (++nTries < 20 && authenticator.OnChallenges(strChallenge, TRUE, TRUE));
    EXPECT_EQ(7, nTries);
    AllowNtlm(FALSE);
}
