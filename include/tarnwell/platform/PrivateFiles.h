// Files and folders of an installation are the user's alone.
//
// The store, the preferences and the log say when every pickup happened, so
// whatever the umask, the library makes its folders 0700 and its files 0600.
// A file or folder an older version left open to others is tightened when it
// is next used: its group and other permissions go, nothing else changes (a
// file made read-only stays read-only).

#pragma once

#include <filesystem>
#include <system_error>

namespace tarnwell {

// Makes `folder` and the parents it lacks as 0700, and tightens `folder`
// itself if it was there. Parents that were there are left as they are.
void makePrivateFolder(const std::filesystem::path& folder, std::error_code& error);
// As above; throws std::filesystem::filesystem_error.
void makePrivateFolder(const std::filesystem::path& folder);

// Makes `file` empty as 0600 when it is absent, and tightens it when it is
// there; its folder is made private. Throws std::filesystem::filesystem_error.
void makePrivateFile(const std::filesystem::path& file);

// Takes the group and other permissions from `file` (or folder) if it
// exists and is this user's; quiet about any failure, as a file the user
// cannot change is not theirs to tighten.
void tightenFile(const std::filesystem::path& file) noexcept;

// For an SQLite file about to be opened: the folder and the file private,
// and the side files it already has (-wal, -shm, -journal) tightened. SQLite
// gives the side files it makes the main file's mode.
void makePrivateDatabaseFile(const std::filesystem::path& file);

}  // namespace tarnwell
