// Finds the maker's decoder library on the user's machine; it is never in the package.
#pragma once

#include <string>
#include <vector>

/// The folders where the maker's own software and kits put it, those first that are likelier to hold the
/// right one.
std::vector<std::wstring> usualDecoderFolders();

/// Whether `folder` (without or with a separator at its end) holds a decoder library of the size that the
/// handler takes.
bool holdsDecoder(const std::wstring& folder);

/// The library's path in `folder`.
std::wstring decoderIn(const std::wstring& folder);
