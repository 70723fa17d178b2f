// Texts that look written, the same on every run.
using System.Text;

public static class Texts
{
    private static readonly string[] words = (
        "the of and to in is for that with contract supplier customer delivery payment schedule "
        + "quarter revenue forecast employee salary merger board meeting minutes approval budget "
        + "estimate drawing pump valve pressure test report sample patent claim licence source "
        + "release server network password account balance invoice").Split(' ');

    /// <summary>So many words; of two seeds two texts without a passage in common.</summary>
    public static string Prose(int count, uint seed)
    {
        var text = new StringBuilder();
        uint state = seed * 2654435761u + 1;
        for (int i = 0; i < count; ++i)
        {
            state = state * 1103515245u + 12345u;
            text.Append(words[state / 65536u % (uint)words.Length]);
            text.Append(i % 12 == 11 ? ".\n" : " ");
        }
        return text.ToString();
    }
}
