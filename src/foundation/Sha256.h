#pragma once

#include "halvistromcore_export.h"

#include <QByteArray>
#include <QString>

struct evp_md_ctx_st;

/// A sha-256 computed piece by piece, with the processor's SHA instructions
/// where it has them (an OS image is hashed as fast as it is read).
class HALVISTROM_CORE_EXPORT Sha256
{
public:
    Sha256();
    ~Sha256();
    Sha256(const Sha256 &) = delete;
    Sha256 &operator=(const Sha256 &) = delete;

    void addData(const char *data, qint64 size);
    /// Starts again, as if nothing had been added.
    void reset();
    /// The checksum of everything added, in lower-case hex; the hash then
    /// starts again.
    QString hexResult();

private:
    evp_md_ctx_st *m_context;
};
