#include "TetherTexts.h"

#include "Text.h"

const char* const kLastFileError = "error";

// A thread that was left behind with a picture may come back when the process's statics are gone.
ExportFolder& g_szExportFolder = *new ExportFolder;
LastFile& g_szLastFile = *new LastFile;

namespace {

thread_local std::string t_ownLastFile;

}  // namespace

void ExportFolder::set(const char* szExportFolder)
{
    char checked[kExportFolderSize];
    boundedCopy(checked, sizeof checked, szExportFolder,
                "the export folder is missing or longer than 255 bytes");

    const std::lock_guard<std::mutex> guard(m_lock);
    m_text = checked;
}

std::string ExportFolder::text() const
{
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_text;
}

void LastFile::check(const std::string& text)
{
    char checked[kLastFileSize];
    boundedCopy(checked, sizeof checked, text.c_str(),
                "the path of a picture is longer than 259 bytes");
}

void LastFile::set(const std::string& text)
{
    check(text);
    t_ownLastFile = text;

    const std::lock_guard<std::mutex> guard(m_lock);
    m_shared = text;
}

void LastFile::clear()
{
    const std::lock_guard<std::mutex> guard(m_lock);
    m_shared.clear();
    ++m_clears;
}

unsigned LastFile::clears() const
{
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_clears;
}

std::string LastFile::take()
{
    const std::lock_guard<std::mutex> guard(m_lock);
    std::string text = t_ownLastFile.empty() ? m_shared : t_ownLastFile;
    t_ownLastFile.clear();
    m_shared.clear();
    return text;
}
