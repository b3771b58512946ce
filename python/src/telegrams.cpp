// Telegram parts (one frame each) and whole telegrams for Python: build, write as frames, read
// frames out of a byte stream, and join parts back into content.
#include "bindings.h"

#include <pybind11/stl.h>

#include <memory>
#include <vector>

#include "nkProtocol.h"

namespace nkpy
{
namespace
{
typedef nk_basicTelegram B;

// Stands for a response callback so that a telegram built here asks for an answer; an engine
// never sees these telegrams, so it is never called.
void wantsAnswer(unsigned int, tBlob*, void*, bool, void*) {}

py::tuple readFrames(py::buffer data)
{
    tBlob stream = blobFrom(data);
    std::vector<std::unique_ptr<nk_telegramPart>> parts;
    {
        py::gil_scoped_release unlocked;
        for (;;) {
            std::unique_ptr<nk_telegramPart> part(new nk_telegramPart());
            if (!part->streamContainsTelegram(&stream)) break;
            parts.push_back(std::move(part));
        }
    }
    py::list out;
    for (auto& p : parts) out.append(py::cast(p.release(), py::return_value_policy::take_ownership));
    return py::make_tuple(out, bytesOf(stream));
}

py::bytes join(std::vector<nk_telegramPart*> const& parts)
{
    if (parts.empty()) throw py::value_error("no parts to join");
    for (auto* p : parts)
        if (!p) throw py::value_error("a part is None");
    tBlob content;
    std::string failure;
    {
        py::gil_scoped_release unlocked;
        nk_telegram in(parts[0]);
        for (size_t i = 1; i < parts.size(); ++i) in.addTelegramPart(parts[i]);
        if (!in.lastPartPresent()) {
            failure = "incomplete: the part at the end is not marked last";
        } else if (in.isCorrupt()) {
            failure = "corrupt: the part ids are not 1 to " + std::to_string(in.partCount());
        } else {
            tBlob* joined = in.getCompleteContent();
            if (!joined) failure = "a part is missing";
            else content = *joined;
        }
    }
    if (!failure.empty()) throw py::value_error("telegram " + std::to_string(parts[0]->telegramId()) + " " + failure);
    return bytesOf(content);
}
}  // namespace

void bindTelegrams(py::module_& m)
{
    py::enum_<B::teType>(m, "TelegramType")
        .value("REQUEST_NO_RESPONSE", B::TYPE_REQUEST_NO_RESPONSE)
        .value("REQUEST_FORCE_RESPONSE", B::TYPE_REQUEST_FORCE_RESPONSE)
        .value("RESPONSE", B::TYPE_RESPONSE);
    py::enum_<B::teCompression>(m, "Compression")
        .value("NONE", B::COMPRESSION_NONE)
        .value("RLE", B::COMPRESSION_RLE)
        .value("HUFF", B::COMPRESSION_HUFF);
    m.attr("ADDRESS_NONE") = B::ADDRESS_NONE;
    m.attr("ADDRESS_BROADCAST") = B::ADDRESS_BROADCAST;

    py::class_<nk_telegramPart>(m, "TelegramPart", "One part of a telegram, sent as one frame")
        .def(py::init([](unsigned int id, unsigned int source, unsigned int destination, unsigned int partId,
                         unsigned int timestamp, bool last, py::buffer payload, B::teType type,
                         B::teCompression compression) {
                 tBlob p = blobFrom(payload);
                 return new nk_telegramPart(id, source, destination, partId, timestamp, last, &p, type, compression);
             }),
             py::kw_only(), py::arg("id"), py::arg("source"), py::arg("destination"), py::arg("part_id") = 1,
             py::arg("timestamp") = 0, py::arg("last") = true, py::arg("payload") = py::bytes(),
             py::arg("type") = B::TYPE_REQUEST_NO_RESPONSE, py::arg("compression") = B::COMPRESSION_NONE)
        .def_property_readonly("id", &nk_telegramPart::telegramId)
        .def_property_readonly("source", &nk_telegramPart::sourceAddress)
        .def_property_readonly("destination", &nk_telegramPart::destinationAddress)
        .def_property_readonly("part_id", &nk_telegramPart::partId)
        .def_property_readonly("timestamp", &nk_telegramPart::timestamp)
        .def_property_readonly("last", &nk_telegramPart::isLastPart)
        .def_property_readonly("type", &nk_telegramPart::type)
        .def_property_readonly("compression", &nk_telegramPart::compression)
        .def_property_readonly("payload", [](nk_telegramPart& p) { return bytesOf(*p.payload()); },
                               "The payload as carried (compressed if the telegram is)")
        .def("to_bytes",
             [](nk_telegramPart& p) {
                 tBlob out;
                 if (!p.serialize(&out)) throw py::value_error("the part could not be written as a frame");
                 return bytesOf(out);
             },
             "The frame: start byte, base-128 body with header, payload and CRC-8, end byte")
        .def_static("read_frames", &readFrames, py::arg("data"),
                    "(parts, rest): the frames at the start of a byte stream, up to the first that is "
                    "missing or invalid, and the bytes behind them")
        .def("__repr__", [](nk_telegramPart& p) {
            return "TelegramPart(id=" + std::to_string(p.telegramId()) + ", source=" + std::to_string(p.sourceAddress()) +
                   ", destination=" + std::to_string(p.destinationAddress()) + ", part_id=" + std::to_string(p.partId()) +
                   ", last=" + (p.isLastPart() ? "True" : "False") + ", type=" +
                   std::string(B::typeName(p.type()).c_str()) + ", compression=" +
                   std::string(B::compressionName(p.compression()).c_str()) + ", " +
                   std::to_string(p.payload()->size()) + " payload bytes)";
        });

    py::class_<nk_telegram>(m, "Telegram",
                            "A whole outgoing telegram: content compressed when that pays and cut into parts")
        .def(py::init([](unsigned int id, unsigned int source, unsigned int destination, py::buffer content,
                         bool response, bool wantsResponse, bool compression) {
                 tBlob c = blobFrom(content);
                 py::gil_scoped_release unlocked;
                 return new nk_telegram(id, source, destination, &c, wantsResponse && !response ? &wantsAnswer : nullptr,
                                        nullptr, response, nullptr, compression);
             }),
             py::kw_only(), py::arg("id"), py::arg("source"), py::arg("destination"), py::arg("content"),
             py::arg("response") = false, py::arg("wants_response") = false, py::arg("compression") = true)
        .def_property_readonly("id", &nk_telegram::telegramId)
        .def_property_readonly("source", &nk_telegram::sourceAddress)
        .def_property_readonly("destination", &nk_telegram::destinationAddress)
        .def_property_readonly("timestamp", &nk_telegram::timestamp)
        .def_property_readonly("type", &nk_telegram::type)
        .def_property_readonly("compression", &nk_telegram::compression)
        .def_property_readonly("parts",
                               [](nk_telegram& t) {
                                   py::list out;
                                   for (unsigned int i = 0; i < t.partCount(); ++i)
                                       out.append(py::cast(new nk_telegramPart(t.part(i)),
                                                           py::return_value_policy::take_ownership));
                                   return out;
                               })
        .def("to_bytes",
             [](nk_telegram& t) {
                 tBlob out;
                 for (unsigned int i = 0; i < t.partCount(); ++i)
                     if (t.part(i) && !t.part(i)->serialize(&out))
                         throw py::value_error("part " + std::to_string(i + 1) + " could not be written as a frame");
                 return bytesOf(out);
             },
             "Every part's frame, in order: the bytes an engine would send")
        .def_static("join", &join, py::arg("parts"),
                    "The content of a telegram's parts, joined and decompressed; raises ValueError when the "
                    "parts are incomplete or corrupt")
        .def_static("set_max_payload_size", &nk_telegram::setMaxPayloadSize, py::arg("size"),
                    "The largest payload of one part, for every telegram built afterwards in this process")
        .def_static("max_payload_size", []() { return nk_telegram::s_u32MaxPayloadSize; });
}
}  // namespace nkpy
