-- Tables as manual pages have them: a list of their first columns, each with what the others say below it. A column that is
-- called "meaning" needs no name.
local text = pandoc.utils.stringify

local function rows_of(table)
    local rows = {}
    for _, body in ipairs(table.bodies) do
        for _, row in ipairs(body.body) do
            rows[#rows + 1] = row.cells
        end
    end
    return rows
end

function Table(table)
    local names = {}
    for _, row in ipairs(table.head.rows) do
        for i, cell in ipairs(row.cells) do
            names[i] = text(cell.contents)
        end
    end
    local items = {}
    for _, cells in ipairs(rows_of(table)) do
        local said = pandoc.List()
        local named = false
        for i = 2, #cells do
            local content = pandoc.utils.blocks_to_inlines(cells[i].contents)
            if #content > 0 then
                if names[i] ~= "" and names[i] ~= "meaning" then
                    content:insert(1, pandoc.Str(names[i] .. ": "))
                end
                if #said > 0 then
                    said:extend({pandoc.Str(named and names[i] ~= "meaning" and ";" or "."), pandoc.SoftBreak()})
                end
                said:extend(content)
                named = names[i] ~= ""
            end
        end
        items[#items + 1] = {pandoc.utils.blocks_to_inlines(cells[1].contents), {pandoc.Plain(said)}}
    end
    return pandoc.DefinitionList(items)
end
