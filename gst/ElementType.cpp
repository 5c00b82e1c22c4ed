#include "ElementType.hpp"

#include <algorithm>

#include <gst/base/gstbasesink.h>

#include <vlxkit/Text.hpp>

namespace vlx::gst
{

namespace
{

constexpr const char* UriProtocol = "vlx";

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
    GstState pending = GST_STATE_VOID_PENDING; // while prerolling
    gst_element_get_state(GST_ELEMENT(handler), &state, &pending, 0);
    const bool stopped = std::max(state, pending) <= GST_STATE_READY;
    if (!valid)
        g_set_error(
            error, GST_URI_ERROR, GST_URI_ERROR_BAD_URI,
            "%s is not the URI of a stream: use vlx://NAME", kit::quote(uri).c_str());
    else if (!stopped)
        g_set_error_literal(
            error, GST_URI_ERROR, GST_URI_ERROR_BAD_STATE,
            "the URI cannot be changed while the element is running");
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

void addUriHandler(GType type)
{
    static const GInterfaceInfo handler = {initUriHandler, nullptr, nullptr};
    g_type_add_interface_static(type, GST_TYPE_URI_HANDLER, &handler);
}

bool checkName(gpointer element, const std::string& name)
{
    if (name.empty())
        GST_ELEMENT_ERROR(
            element, RESOURCE, SETTINGS, ("The stream has no name: set \"socket-name\"."),
            (nullptr));
    return !name.empty();
}

void describeElement(
    gpointer elementClass,
    const char* name,
    const char* kind,
    const char* purpose,
    GstPadDirection direction)
{
    auto* const described = GST_ELEMENT_CLASS(elementClass);
    gst_element_class_set_static_metadata(described, name, kind, purpose, "Vellox developers");
    GstCaps* const caps = gst_caps_new_any();
    gst_element_class_add_pad_template(
        described, gst_pad_template_new(
                       direction == GST_PAD_SRC ? "src" : "sink", direction, GST_PAD_ALWAYS, caps));
    gst_caps_unref(caps);
}

} // namespace vlx::gst
