#include "platform/host/Ui.h"

namespace
{
const int WSPRINTF_LIMIT = 1024;

class Output
{
public:
    explicit Output(LPWSTR buffer) : m_buffer(buffer) {}
    void Put(WCHAR c)
    {
        if (m_length < WSPRINTF_LIMIT - 1)
            m_buffer[m_length++] = c;
    }
    int Finish()
    {
        m_buffer[m_length] = 0;
        return m_length;
    }

private:
    LPWSTR m_buffer;
    int m_length = 0;
};

void PutPadded(Output& out, const WCHAR* text, int length, int width, bool left, WCHAR pad)
{
    for (int i = length; !left && i < width; ++i)
        out.Put(pad);
    for (int i = 0; i < length; ++i)
        out.Put(text[i]);
    for (int i = length; left && i < width; ++i)
        out.Put(TEXT(' '));
}
} // namespace

int wvsprintfW(LPWSTR buffer, LPCWSTR format, va_list arguments)
{
    if (!buffer || !format)
        return 0;
    Output out(buffer);
    for (const WCHAR* f = format; *f; ++f)
    {
        if (*f != TEXT('%'))
        {
            out.Put(*f);
            continue;
        }
        ++f;
        bool left = false;
        WCHAR pad = TEXT(' ');
        if (*f == TEXT('-'))
            left = true, ++f;
        if (*f == TEXT('0'))
            pad = TEXT('0'), ++f;
        int width = 0;
        while (*f >= TEXT('0') && *f <= TEXT('9'))
            width = width * 10 + (*f++ - TEXT('0'));
        bool narrow = false;
        if (*f == TEXT('l'))
            ++f;
        else if (*f == TEXT('h'))
            narrow = true, ++f;

        WCHAR digits[24];
        int length = 0;
        switch (*f)
        {
        case 0:
            return out.Finish();
        case TEXT('d'):
        case TEXT('i'):
        case TEXT('u'):
        case TEXT('x'):
        case TEXT('X'):
        {
            unsigned value = va_arg(arguments, unsigned);
            bool negative = (*f == TEXT('d') || *f == TEXT('i')) && static_cast<int>(value) < 0;
            if (negative)
                value = 0u - value;
            unsigned base = (*f == TEXT('x') || *f == TEXT('X')) ? 16 : 10;
            const char* symbols = *f == TEXT('X') ? "0123456789ABCDEF" : "0123456789abcdef";
            WCHAR reversed[24];
            int count = 0;
            do
                reversed[count++] = static_cast<WCHAR>(symbols[value % base]);
            while ((value /= base) != 0);
            if (negative)
                digits[length++] = TEXT('-');
            while (count > 0)
                digits[length++] = reversed[--count];
            PutPadded(out, digits, length, width, left, pad);
            break;
        }
        case TEXT('c'):
            digits[0] = static_cast<WCHAR>(va_arg(arguments, int));
            PutPadded(out, digits, 1, width, left, TEXT(' '));
            break;
        case TEXT('s'):
            if (narrow)
            {
                const char* text = va_arg(arguments, const char*);
                const char* shown = text ? text : "(null)";
                int n = 0;
                while (shown[n])
                    ++n;
                for (int i = n; !left && i < width; ++i)
                    out.Put(TEXT(' '));
                for (int i = 0; i < n; ++i)
                    out.Put(static_cast<WCHAR>(static_cast<unsigned char>(shown[i])));
                for (int i = n; left && i < width; ++i)
                    out.Put(TEXT(' '));
            }
            else
            {
                LPCWSTR text = va_arg(arguments, LPCWSTR);
                LPCWSTR shown = text ? text : TEXT("(null)");
                int n = 0;
                while (shown[n])
                    ++n;
                PutPadded(out, shown, n, width, left, TEXT(' '));
            }
            break;
        default:
            out.Put(*f);
            break;
        }
    }
    return out.Finish();
}

int wsprintfW(LPWSTR buffer, LPCWSTR format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    int written = wvsprintfW(buffer, format, arguments);
    va_end(arguments);
    return written;
}
