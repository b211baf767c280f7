#include <tern/typed/contract.h>

#include <cstring>

namespace mwl::Typed {

namespace {

/// Where nothing is written any more once a write has failed.
class Xml {
public:
    explicit Xml(std::FILE* file) : mFile(file) {}

    void Write(std::string_view text) {
        mIsGood = mIsGood && std::fwrite(text.data(), 1, text.size(), mFile) == text.size();
    }

    /// A text as the value of an attribute: whatever the text, it is read back as it was. Control characters
    /// that XML cannot hold become question marks.
    void WriteEscaped(const char* text) {
        for (; *text != '\0'; ++text) {
            switch (*text) {
                case '&':
                    Write("&amp;");
                    break;
                case '<':
                    Write("&lt;");
                    break;
                case '>':
                    Write("&gt;");
                    break;
                case '"':
                    Write("&quot;");
                    break;
                case '\n':
                    Write("&#10;");
                    break;
                case '\r':
                    Write("&#13;");
                    break;
                case '\t':
                    Write("&#9;");
                    break;
                default:
                    Write(static_cast<unsigned char>(*text) < ' ' ? "?" : std::string_view(text, 1));
            }
        }
    }

    void WriteAttribute(const char* name, std::string_view value) {
        Write(" ");
        Write(name);
        Write("=\"");
        Write(value);
        Write("\"");
    }

    bool IsGood() const { return mIsGood; }

private:
    std::FILE* mFile;
    bool mIsGood = true;
};

void WriteAnnotation(Xml& xml, std::string_view indent, const char* name, const char* value) {
    xml.Write(indent);
    xml.Write("<annotation");
    xml.WriteAttribute("name", name);
    xml.Write(" value=\"");
    xml.WriteEscaped(value);
    xml.Write("\"/>\n");
}

/// One element for each complete type of the signature. `names` is moved on.
void WriteArguments(Xml& xml, std::string_view signature, const char*& names, const char* direction) {
    for (std::size_t at = 0; at < signature.size();) {
        const std::size_t end = Detail::EndOfType(signature, at);
        xml.Write("   <arg");
        xml.WriteAttribute("type", signature.substr(at, end - at));
        if (*names != '\0') {
            xml.WriteAttribute("name", names);
            names += std::strlen(names) + 1;
        }
        if (*direction != '\0') {
            xml.WriteAttribute("direction", direction);
        }
        xml.Write("/>\n");
        at = end;
    }
}

void WriteAnnotations(Xml& xml, const MemberText& member) {
    constexpr std::string_view INDENT = "   ";
    const Flags flags = member.flags;
    if (flags.Has(DEPRECATED)) {
        WriteAnnotation(xml, INDENT, "org.freedesktop.DBus.Deprecated", "true");
    }
    if (flags.Has(NO_REPLY)) {
        WriteAnnotation(xml, INDENT, "org.freedesktop.DBus.Method.NoReply", "true");
    }
    if (member.kind == Kind::Property) {
        if (flags.Has(EXPLICIT)) {
            WriteAnnotation(xml, INDENT, "org.freedesktop.systemd1.Explicit", "true");
        }
        if (!flags.Has(EMITS)) {
            WriteAnnotation(xml, INDENT, "org.freedesktop.DBus.Property.EmitsChangedSignal",
                            flags.Has(CONSTANT)      ? "const"
                            : flags.Has(INVALIDATES) ? "invalidates"
                                                     : "false");
        }
    }
    if ((member.kind == Kind::Method || member.isWritable) && !flags.Has(OPEN)) {
        WriteAnnotation(xml, INDENT, "org.freedesktop.systemd1.Privileged", "true");
    }
    if (flags.Has(SENSITIVE)) {
        WriteAnnotation(xml, INDENT, "mwl.Typed.Sensitive", "true");
    }
    if (*member.documentation != '\0') {
        WriteAnnotation(xml, INDENT, "org.gtk.GDBus.DocString", member.documentation);
    }
}

void WriteMember(Xml& xml, const MemberText& member) {
    const char* const element = member.kind == Kind::Method     ? "method"
                                : member.kind == Kind::Property ? "property"
                                                                : "signal";
    xml.Write("  <");
    xml.Write(element);
    if (member.kind == Kind::Property) {
        xml.WriteAttribute("name", member.name);
        xml.WriteAttribute("type", member.in);
        xml.WriteAttribute("access", member.isWritable ? "readwrite" : "read");
    } else {
        xml.WriteAttribute("name", member.name);
    }
    xml.Write(">\n");
    const char* names = member.names;
    if (member.kind == Kind::Method) {
        WriteArguments(xml, member.in, names, "in");
        WriteArguments(xml, member.out, names, "out");
    } else if (member.kind == Kind::Signal) {
        WriteArguments(xml, member.in, names, "");
    }
    WriteAnnotations(xml, member);
    xml.Write("  </");
    xml.Write(element);
    xml.Write(">\n");
}

}  // namespace

StatusCode WriteIntrospectionOf(std::FILE* file, const char* interface, const char* documentation,
                                std::span<const MemberText> members) {
    Xml xml(file);
    xml.Write(
        "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
        "\"https://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n"
        "<node>\n <interface");
    xml.WriteAttribute("name", interface);
    xml.Write(">\n");
    if (*documentation != '\0') {
        WriteAnnotation(xml, "  ", "org.gtk.GDBus.DocString", documentation);
    }
    for (const MemberText& member : members) {
        if (!member.flags.Has(HIDDEN)) {
            WriteMember(xml, member);
        }
    }
    xml.Write(" </interface>\n</node>\n");
    return xml.IsGood() ? StatusCode::Ok : StatusCode::IoError;
}

}  // namespace mwl::Typed
