// vexactl's output: tables and JSON documents that keep their values' types.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>

#include "tools/vexactl/command.h"

namespace vexactl {

double rounded(double value, int decimals)
{
    const double scale = std::pow(10.0, decimals);
    return std::round(value * scale) / scale;
}

cJSON *exact_number(unsigned long long value)
{
    return cJSON_CreateRaw(std::to_string(value).c_str());
}

Cell Cell::truth(bool value, const char *yes, const char *no)
{
    Cell cell(Kind::truth, value ? yes : no);
    cell.number_ = value;
    return cell;
}

Cell Cell::real(double value, int decimals)
{
    char shown[48];
    std::snprintf(shown, sizeof shown, "%.*f", decimals, value);
    Cell cell(Kind::real, shown);
    cell.real_ = rounded(value, decimals);
    return cell;
}

Cell Cell::hex(unsigned long long value, int digits)
{
    char shown[32];
    std::snprintf(shown, sizeof shown, "0x%0*llx", digits, value);
    Cell cell(Kind::number, shown);
    cell.number_ = static_cast<long long>(value);
    return cell;
}

Cell Cell::none() { return Cell(Kind::none, "-"); }

cJSON *Cell::json() const
{
    switch (kind_) {
    case Kind::number:
        return cJSON_CreateNumber(static_cast<double>(number_));
    case Kind::real:
        return cJSON_CreateNumber(real_);
    case Kind::truth:
        return cJSON_CreateBool(number_ != 0);
    case Kind::none:
        return cJSON_CreateNull();
    case Kind::text:
        break;
    }
    return cJSON_CreateString(text_.c_str());
}

Table::Table(std::vector<std::string> columns) : columns_(std::move(columns)) {}

void Table::row(std::vector<Cell> cells)
{
    cells.resize(columns_.size(), Cell(""));
    rows_.push_back(std::move(cells));
}

cJSON *Table::json() const
{
    cJSON *array = cJSON_CreateArray();
    for (auto &cells : rows_) {
        cJSON *object = cJSON_CreateObject();
        for (size_t i = 0; i < columns_.size(); ++i)
            cJSON_AddItemToObject(object, columns_[i].c_str(), cells[i].json());
        cJSON_AddItemToArray(array, object);
    }
    return array;
}

void print_json(Context &ctx, cJSON *item)
{
    char *text = cJSON_Print(item);
    std::fprintf(ctx.out, "%s\n", text ? text : "null");
    cJSON_free(text);
    cJSON_Delete(item);
}

void Table::print(Context &ctx) const
{
    if (ctx.json) {
        print_json(ctx, json());
        return;
    }
    std::vector<size_t> widths(columns_.size());
    for (size_t i = 0; i < columns_.size(); ++i) {
        widths[i] = columns_[i].size();
        for (auto &cells : rows_)
            widths[i] = std::max(widths[i], cells[i].shown().size());
    }
    auto line = [&](const std::vector<std::string> &cells) {
        std::string text;
        for (size_t i = 0; i < cells.size(); ++i) {
            text += cells[i];
            if (i + 1 < cells.size())
                text += std::string(widths[i] - cells[i].size() + 2, ' ');
        }
        while (!text.empty() && text.back() == ' ')
            text.pop_back();
        std::fprintf(ctx.out, "%s\n", text.c_str());
    };
    std::vector<std::string> header;
    for (auto &c : columns_) {
        std::string upper = c;
        for (auto &ch : upper)
            ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
        header.push_back(upper);
    }
    line(header);
    for (auto &cells : rows_) {
        std::vector<std::string> shown;
        for (auto &cell : cells)
            shown.push_back(cell.shown());
        line(shown);
    }
}

} // namespace vexactl
