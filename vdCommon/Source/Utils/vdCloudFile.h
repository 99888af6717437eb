// Clips whose data are not on this machine: in a cloud, or in an archive.
#pragma once

/// Whether reading the file at `path` would have its data fetched from elsewhere. What cannot be found is not
/// fetched. Nothing is opened. Any thread.
bool wouldBeFetched(const wchar_t* path) noexcept;

/// Whether the file is to be left alone: it would be fetched, and no policy wants that for a thumbnail.
bool isSparedCloudFile(const wchar_t* path) noexcept;
