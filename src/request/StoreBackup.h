// Keeps a request store recoverable across a process that dies in the middle of a write: the profile
// functions rewrite the whole file on every write, so a kill at the wrong moment leaves it cut short
// and the requests after the cut are gone. For the length of one store operation a copy of the file as
// it was stands beside it ("<store>.bak"), held open so that no other process takes it for a leftover;
// the next open finds a copy left behind by a dead writer and puts it back.
#pragma once

#include <string>

#include "common/Win32Raii.h"

class StoreBackup {
public:
    // Copies the store before a write; the copy goes when the write is over.
    explicit StoreBackup(const std::wstring& storePath);
    ~StoreBackup();
    StoreBackup(const StoreBackup&) = delete;
    StoreBackup& operator=(const StoreBackup&) = delete;

    // Puts back the copy of an operation that never ended. True when one was put back.
    static bool recover(const std::wstring& storePath);

    static std::wstring backupPath(const std::wstring& storePath) { return storePath + L".bak"; }

private:
    std::wstring backup_;
    qv::UniqueFile held_;
};
