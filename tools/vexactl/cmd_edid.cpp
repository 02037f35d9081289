// edid: the EDID the board hands out for a mode, and a reader of EDID files.
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tools/vexactl/command.h"
#include "vexasdk/display.h"

namespace vexactl {
namespace {

std::string hex_dump(const uint8_t *data, size_t len)
{
    std::string out;
    char line[24];
    for (size_t i = 0; i < len; ++i) {
        if (i % 16 == 0) {
            snprintf(line, sizeof(line), "%04zx:", i);
            out += line;
        }
        snprintf(line, sizeof(line), " %02x", data[i]);
        out += line;
        if (i % 16 == 15 || i + 1 == len)
            out += "\n";
    }
    return out;
}

int run_model(Context &ctx, const Command &command, const Args &args)
{
    const std::string file = ctx.text("output").value_or("");
    const Args words(args.begin() + 1, args.end());
    if (words.size() != 3)
        return usage_error(command, "model needs W H RATE");
    const long long w = number_operand(words[0], "the width", 1, 16384);
    const long long h = number_operand(words[1], "the height", 1, 16384);
    char *end = nullptr;
    const float rate = strtof(words[2].c_str(), &end);
    if (end == words[2].c_str() || *end != '\0' || !(rate > 0.0f) || rate > 240.0f)
        return usage_error(command, "the rate is a refresh in Hz, above 0 and at most 240");

    ctx.board();
    uint8_t edid[256];
    if (bi_resolution_get_edid_by_model(uint32_t(w), uint32_t(h), rate, edid) != 0)
        return fail("no EDID for %lldx%lld at %g Hz; see 'vexactl log'", w, h, double(rate));
    if (!file.empty())
        return write_output(ctx, file, std::string(reinterpret_cast<const char *>(edid), sizeof edid)) ? 0 : 1;
    if (ctx.json) {
        std::string hex;
        char byte[3];
        for (uint8_t b : edid) {
            snprintf(byte, sizeof byte, "%02x", b);
            hex += byte;
        }
        cJSON *o = cJSON_CreateObject();
        cJSON_AddNumberToObject(o, "width", static_cast<double>(w));
        cJSON_AddNumberToObject(o, "height", static_cast<double>(h));
        cJSON_AddNumberToObject(o, "refresh_hz", rounded(rate, 3));
        cJSON_AddNumberToObject(o, "size_bytes", sizeof edid);
        cJSON_AddStringToObject(o, "hex", hex.c_str());
        print_json(ctx, o);
        return 0;
    }
    fputs(hex_dump(edid, sizeof(edid)).c_str(), ctx.out);
    return 0;
}

void add_descriptor_row(Table &table, const std::string &where, const uint8_t *d)
{
    DetailedTiming t;
    const int32_t valid = edid_parse_dtd(d, &t);
    if (d[0] == 0 && d[1] == 0) {
        char tag[8];
        snprintf(tag, sizeof(tag), "0x%02x", d[3]);
        table.row({where, std::string("display descriptor ") + tag, Cell::none(), Cell::none(), Cell::none(),
                   Cell::none(), Cell::none(), Cell::none(), Cell::none()});
        return;
    }
    EdidVideoMode m;
    edid_dtd2modeline2_convert(&t, &m);
    table.row({where, "timing", Cell::truth(valid), t.pixel_clock / 1000,
               std::to_string(t.h_active) + "x" + std::to_string(t.v_active), m.refresh,
               std::to_string(t.h_sync_offset) + "/" + std::to_string(t.h_sync_width) + "/" +
                   std::to_string(m.h_back_porch),
               std::to_string(t.v_sync_offset) + "/" + std::to_string(t.v_sync_width) + "/" +
                   std::to_string(m.v_back_porch),
               std::to_string(t.h_size_mm) + "x" + std::to_string(t.v_size_mm)});
}

int run_show(Context &ctx, const Command &command, const Args &args)
{
    if (args.size() != 2)
        return usage_error(command, "show needs one FILE");
    std::string read;
    if (!read_input(ctx, args[1], &read))
        return 1;
    std::vector<uint8_t> bytes(read.begin(), read.end());
    if (bytes.size() < 128)
        return fail("%s holds %zu bytes; an EDID block has 128",
                    args[1] == "-" ? "standard input" : args[1].c_str(), bytes.size());
    bytes.resize(256, 0);

    ctx.board();
    EdidInfo info;
    const bool valid = edid_parse_block0(bytes.data(), &info) == 1;
    Table base({"field", "value"});
    char text[64];
    base.row({"valid", Cell::truth(valid)});
    base.row({"manufacturer", info.manufacturer});
    base.row({"product", Cell::hex(info.product_code, 4)});
    base.row({"serial", info.serial});
    base.row({"week", info.week});
    base.row({"year", info.year});
    base.row({"version", std::to_string(info.version) + "." + std::to_string(info.revision)});
    base.row({"input", Cell::hex(info.video_input, 2)});
    base.row({"size_mm", std::to_string(info.h_size_mm) + "x" + std::to_string(info.v_size_mm)});
    base.row({"gamma", Cell::hex(info.gamma, 2)});
    base.row({"features", Cell::hex(info.features, 2)});
    snprintf(text, sizeof(text), "0x%04x 0x%02x", info.established_timings,
             info.manufacturer_timings);
    base.row({"established", text});
    base.row({"extensions", info.extensions});

    Table descriptors({"where", "kind", "valid", "clock_khz", "size", "refresh_hz", "h_fp_sync_bp",
                       "v_fp_sync_bp", "image_mm"});
    for (int i = 0; i < 4; ++i)
        add_descriptor_row(descriptors, "block 0 #" + std::to_string(i + 1), &bytes[54 + 18 * i]);
    if (info.extensions != 0 && bytes[128] == 0x02 && bytes[130] >= 4) {
        int n = 1;
        for (size_t at = 128 + bytes[130]; at + 18 <= 255 && (bytes[at] | bytes[at + 1]); at += 18)
            add_descriptor_row(descriptors, "block 1 #" + std::to_string(n++), &bytes[at]);
    }

    st_bi_sffe_resolution preferred{};
    const bool have_preferred =
        bi_resolution_get_prefferred_timing_by_edid(bytes.data(), &preferred) == 0;
    if (ctx.json) {
        cJSON *out = cJSON_CreateObject();
        cJSON_AddItemToObject(out, "base", base.json());
        cJSON_AddItemToObject(out, "descriptors", descriptors.json());
        if (have_preferred) {
            cJSON *p = cJSON_AddObjectToObject(out, "preferred");
            cJSON_AddNumberToObject(p, "width", preferred.width);
            cJSON_AddNumberToObject(p, "height", preferred.height);
            cJSON_AddNumberToObject(p, "refresh_hz", preferred.refresh);
        }
        print_json(ctx, out);
        return 0;
    }
    base.print(ctx);
    fputs("\n", ctx.out);
    descriptors.print(ctx);
    if (have_preferred)
        fprintf(ctx.out, "\npreferred: %ux%u @ %u Hz\n", preferred.width, preferred.height,
                preferred.refresh);
    return 0;
}

int run_edid(Context &ctx, const Args &args)
{
    const Command &command = command_named("edid");
    if (args.empty())
        return usage_error(command, "needs model or show");
    if (args[0] == "model")
        return run_model(ctx, command, args);
    if (args[0] == "show")
        return run_show(ctx, command, args);
    return usage_error(command, "unknown action '" + args[0] + "'");
}

VEXACTL_COMMAND(edid, {"edid", "model W H RATE [-o FILE] | show FILE|-",
                       "Build the EDID of a mode, or read an EDID file",
                       "model: the 256-byte EDID bi_resolution_get_edid_by_model gives (the\n"
                       "  board's identity with the mode as its preferred timing), written to\n"
                       "  FILE ('-': standard output) or shown as a hex dump (--json: as hex text).\n"
                       "show: the base block, every detailed timing descriptor with the\n"
                       "  parser's verdict, and the preferred mode, of FILE ('-': standard input).",
                       run_edid, {text("output", "FILE", "model: write the EDID to FILE ('-': standard output)").letter('o')}});

} // namespace
} // namespace vexactl
