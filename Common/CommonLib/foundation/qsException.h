// The library's own exception value: a status code, a text and a detail.
// Thrown rarely; reported with qsLogPrintQsExceptionMessage.
#pragma once

#include "qsStatus.h"

class qsException {
public:
    qsException(qsStatus code, const char* text, const char* detail = nullptr)
        : m_Code(code), m_Text(text), m_Detail(detail) {}

    qsStatus Code() const { return m_Code; }
    const char* Text() const { return m_Text; }
    const char* Detail() const { return m_Detail; }

private:
    qsStatus m_Code;
    const char* m_Text;   // static texts only: the exception does not own them
    const char* m_Detail;
};
