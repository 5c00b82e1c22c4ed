#include "ElementType.hpp"

#include <gst/base/gstbasesink.h>

namespace vlx::gst
{

namespace
{

GstURIType getUriType(GType type)
{
    return g_type_is_a(type, GST_TYPE_BASE_SINK) != FALSE ? GST_URI_SINK : GST_URI_SRC;
}

const gchar* const* getProtocols(GType /*type*/)
{
    static const gchar* const protocols[] = {UriProtocol, nullptr};
    return protocols;
}

gchar* getUri(GstURIHandler* handler)
{
    gchar* name = nullptr;
    g_object_get(handler, "socket-name", &name, nullptr);
    gchar* uri = nullptr;
    if (name != nullptr && *name != '\0')
    {
        gchar* const escaped = g_uri_escape_string(name, "/", FALSE);
        uri = g_strconcat(UriProtocol, "://", escaped, nullptr);
        g_free(escaped);
    }
    g_free(name);
    return uri;
}

gboolean setUri(GstURIHandler* handler, const gchar* uri, GError** error)
{
    gchar* const name = gst_uri_get_location(uri);
    const bool valid = name != nullptr && *name != '\0';
    GstState state = GST_STATE_NULL;
    gst_element_get_state(GST_ELEMENT(handler), &state, nullptr, 0);
    const bool stopped = state <= GST_STATE_READY;
    if (!valid)
        g_set_error(
            error, GST_URI_ERROR, GST_URI_ERROR_BAD_URI,
            "\"%s\" names no stream: it should read vlx://NAME", uri);
    else if (!stopped)
        g_set_error_literal(
            error, GST_URI_ERROR, GST_URI_ERROR_BAD_STATE,
            "the stream cannot be changed while the element is running");
    else
        g_object_set(handler, "socket-name", name, nullptr);
    g_free(name);
    return static_cast<gboolean>(valid && stopped);
}

void initUriHandler(gpointer interface, gpointer /*data*/)
{
    auto* const handler = static_cast<GstURIHandlerInterface*>(interface);
    handler->get_type = getUriType;
    handler->get_protocols = getProtocols;
    handler->get_uri = getUri;
    handler->set_uri = setUri;
}

} // unnamed namespace

GType registerElementType(GType parent, const char* name, const GTypeInfo& info)
{
    const GType type = g_type_register_static(parent, name, &info, GTypeFlags{});
    static const GInterfaceInfo handler = {initUriHandler, nullptr, nullptr};
    g_type_add_interface_static(type, GST_TYPE_URI_HANDLER, &handler);
    return type;
}

std::string getText(const GValue* value)
{
    const gchar* const text = g_value_get_string(value);
    return text != nullptr ? text : "";
}

} // namespace vlx::gst
