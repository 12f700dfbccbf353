// The walk through files and folders; sender.cc has the exchange with the receiver.
#include "tools/memory.h"
#include "tools/sender.h"

namespace tool {

namespace {

constexpr int ENTRIES_PER_TURN = 64;  // of the survey

}  // namespace

// Turn by turn. Its walk opens the files as the other one does, so both find the same.
void Sender::Survey() {
    FolderWalk::Entry entry;
    for (int i = 0; i < ENTRIES_PER_TURN; ++i) {
        if (!m_Survey.Next(entry)) {
            m_bSurveyed = true;
            return m_Meter.EndSearch();
        }
        if (entry.m_Kind == FolderWalk::FILE && !entry.m_bInput && IsNew(entry.m_strPath))
            m_Meter.Expect(static_cast<uint64_t>(entry.m_Status.st_size));
    }
    RequireMemory(m_SurveyTimer.Schedule(this, CCmTimeValue::s_tvZero, 1));
}

// The folders that the walk is in do not count: each has entries to come.
bool Sender::HasRoom() const { return m_Items.size() + m_Folders.size() - m_vecWalk.size() < MOST_IN_FLIGHT; }

// false: the transport takes no more at present.
bool Sender::FillWindow() {
    FolderWalk::Entry entry;
    while (!m_bWalked && HasRoom()) {
        m_bWalked = !m_Walk.Next(entry);
        if (!m_bWalked)
            Begin(entry);
        if (m_bBlocked || m_State != RUNNING)
            return false;
    }
    return true;
}

void Sender::Begin(FolderWalk::Entry& aEntry) {
    switch (aEntry.m_Kind) {
    case FolderWalk::FILE:
        return BeginFile(aEntry);
    case FolderWalk::FOLDER:
        return BeginFolder(aEntry);
    case FolderWalk::LEAVE:
        if (!aEntry.m_strProblem.empty())
            ReportFailed(aEntry.m_strPath, {CAUSE_LOCAL, aEntry.m_strProblem});
        return LeaveFolder();
    case FolderWalk::SKIPPED:
        if (IsNew(aEntry.m_strPath))
            m_Console.Report("skipped " + aEntry.m_strPath + ": " + aEntry.m_strProblem,
                             JsonLine("skipped").Add("name", aEntry.m_strPath).Add("reason", aEntry.m_strProblem));
        return Settle(aEntry.m_strPath);
    case FolderWalk::PROBLEM:
        ++m_stFound;
        return ReportFailed(aEntry.m_strPath, {CAUSE_LOCAL, aEntry.m_strProblem});
    }
}

FrameEntry Sender::MakeEntry(const FolderWalk::Entry& aEntry, uint64_t aSize) {
    const timespec& time = aEntry.m_Status.st_mtim;
    return {++m_dwLastId,
            m_vecWalk.empty() ? OUT_FOLDER : m_vecWalk.back(),
            aEntry.m_Status.st_mode & 0777,
            time.tv_sec,
            static_cast<DWORD>(time.tv_nsec),
            aSize,
            aEntry.m_strName};
}

void Sender::BeginFile(FolderWalk::Entry& aEntry) {
    ++m_stFound;
    if (!IsNew(aEntry.m_strPath))
        return;
    const uint64_t ullSize = aEntry.m_bInput ? UNKNOWN_SIZE : static_cast<uint64_t>(aEntry.m_Status.st_size);
    const FrameEntry entry = MakeEntry(aEntry, ullSize);
    const auto itFolder = m_Folders.find(entry.m_dwFolder);
    if (itFolder != m_Folders.end() && itFolder->second.m_bRefused)
        return ReportFailed(aEntry.m_strPath, {CAUSE_REFUSED, "its folder was refused"});
    if (itFolder != m_Folders.end())
        ++itFolder->second.m_nUsers;
    const auto it =
        m_Items.try_emplace(entry.m_dwId, std::move(aEntry.m_File), ullSize, m_dwMaxPiece, aEntry.m_strPath, entry.m_dwFolder)
            .first;
    it->second.m_ullMetered = aEntry.m_bInput ? 0 : ullSize;
    Send(EncodeEntry(EFrame::FILE, entry));
}

void Sender::BeginFolder(const FolderWalk::Entry& aEntry) {
    const FrameEntry entry = MakeEntry(aEntry, 0);
    const auto itParent = m_Folders.find(entry.m_dwFolder);
    const bool bRefused = itParent != m_Folders.end() && itParent->second.m_bRefused;
    m_vecWalk.push_back(entry.m_dwId);
    m_Folders.try_emplace(entry.m_dwId, Folder{aEntry.m_strPath, 1, bRefused});
    if (!bRefused)
        Send(EncodeEntry(EFrame::FOLDER, entry));
}

void Sender::LeaveFolder() {
    const DWORD dwId = m_vecWalk.back();
    m_vecWalk.pop_back();
    ReleaseFolder(dwId);
}

void Sender::ReleaseFolder(DWORD aId) {
    const auto it = m_Folders.find(aId);
    if (it == m_Folders.end() || --it->second.m_nUsers > 0)
        return;
    if (it->second.m_bRefused)
        m_Folders.erase(it);
    else
        Send(EncodeFor(EFrame::END, aId));
}

}  // namespace tool
