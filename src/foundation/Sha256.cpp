#include "Sha256.h"

#include <openssl/evp.h>

Sha256::Sha256()
    : m_context(EVP_MD_CTX_new())
{
    reset();
}

Sha256::~Sha256()
{
    EVP_MD_CTX_free(m_context);
}

void Sha256::reset()
{
    EVP_DigestInit_ex(m_context, EVP_sha256(), nullptr);
}

void Sha256::addData(const char *data, qint64 size)
{
    EVP_DigestUpdate(m_context, data, size_t(size));
}

QString Sha256::hexResult()
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(m_context, digest, &length);
    reset();
    return QString::fromLatin1(QByteArray(reinterpret_cast<const char *>(digest), int(length)).toHex());
}
